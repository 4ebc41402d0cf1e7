#include "StandIn.h"

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>

namespace standin {

namespace {

// The signature, scrambled with 0x3C so that neither this source nor the built library holds
// it in plain form.
constexpr unsigned char kScrambledSignature[] = {
    0x64, 0x09, 0x73, 0x1d, 0x6c, 0x19, 0x7c, 0x7d, 0x6c, 0x67, 0x08, 0x60, 0x6c, 0x66,
    0x64, 0x09, 0x08, 0x14, 0x6c, 0x62, 0x15, 0x0b, 0x7f, 0x7f, 0x15, 0x0b, 0x41, 0x18,
    0x79, 0x75, 0x7f, 0x7d, 0x6e, 0x11, 0x6f, 0x68, 0x7d, 0x72, 0x78, 0x7d, 0x6e, 0x78,
    0x11, 0x7d, 0x72, 0x68, 0x75, 0x6a, 0x75, 0x6e, 0x69, 0x6f, 0x11, 0x68, 0x79, 0x6f,
    0x68, 0x11, 0x7a, 0x75, 0x70, 0x79, 0x1d, 0x18, 0x74, 0x17, 0x74, 0x16};

std::string Signature() {
    std::string text;
    for (unsigned char c : kScrambledSignature) {
        text.push_back(static_cast<char>(c ^ 0x3C));
    }
    return text;
}

int CountPlain(const std::string& content, const std::string& signature) {
    int count = 0;
    for (std::size_t at = content.find(signature); at != std::string::npos;
         at = content.find(signature, at + 1)) {
        ++count;
    }
    return count;
}

int Base64Value(char c) {
    if (c >= 'A' && c <= 'Z')
        return c - 'A';
    if (c >= 'a' && c <= 'z')
        return c - 'a' + 26;
    if (c >= '0' && c <= '9')
        return c - '0' + 52;
    if (c == '+')
        return 62;
    if (c == '/')
        return 63;
    return -1;
}

bool IsBase64Line(const std::string& line) {
    if (line.size() < 8) {
        return false;
    }
    for (char c : line) {
        if (Base64Value(c) < 0 && c != '=') {
            return false;
        }
    }
    return true;
}

std::string DecodeBase64(const std::string& text) {
    std::string out;
    unsigned bits = 0;
    int count = 0;
    for (char c : text) {
        int value = Base64Value(c);
        if (value < 0) {
            continue;
        }
        bits = (bits << 6) | static_cast<unsigned>(value);
        count += 6;
        if (count >= 8) {
            count -= 8;
            out.push_back(static_cast<char>((bits >> count) & 0xFF));
        }
    }
    return out;
}

// Runs of base64 lines, as MIME parts carry them, decoded one run at a time.
int CountEncoded(const std::string& content, const std::string& signature) {
    int count = 0;
    std::string run;
    std::size_t start = 0;
    while (start <= content.size()) {
        std::size_t end = content.find('\n', start);
        std::string line =
            content.substr(start, end == std::string::npos ? std::string::npos : end - start);
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        if (IsBase64Line(line)) {
            run += line;
        } else if (!run.empty()) {
            count += CountPlain(DecodeBase64(run), signature);
            run.clear();
        }
        if (end == std::string::npos) {
            break;
        }
        start = end + 1;
    }
    if (!run.empty()) {
        count += CountPlain(DecodeBase64(run), signature);
    }
    return count;
}

std::mutex g_logLock;

}  // namespace

bool ReadWholeFile(const char* path, std::string& content) {
    std::FILE* file = path != nullptr ? std::fopen(path, "rb") : nullptr;
    if (file == nullptr) {
        return false;
    }
    content.clear();
    char buffer[4096];
    std::size_t got = 0;
    while ((got = std::fread(buffer, 1, sizeof(buffer), file)) > 0) {
        content.append(buffer, got);
    }
    std::fclose(file);
    return true;
}

int CountSignatures(const std::string& content) {
    std::string signature = Signature();
    return CountPlain(content, signature) + CountEncoded(content, signature);
}

bool HasMarker(const std::string& content, const char* marker) {
    return content.find(std::string("qbrix-stand-in:") + marker) != std::string::npos;
}

void HangIfAsked(const std::string& content) {
    if (HasMarker(content, "crash")) {
        std::abort();  // an engine that brings its process down
    }
    if (HasMarker(content, "hang")) {
        std::this_thread::sleep_for(std::chrono::milliseconds(kHangMs));
    }
}

bool InitialisationShouldFail() {
    return std::getenv("QBRIX_STANDIN_FAIL_INIT") != nullptr;
}

void Log(const char* format, ...) {
    const char* path = std::getenv("QBRIX_STANDIN_LOG");
    if (path == nullptr) {
        return;
    }
    std::lock_guard guard(g_logLock);
    std::FILE* file = std::fopen(path, "a");
    if (file == nullptr) {
        return;
    }
    va_list args;
    va_start(args, format);
    std::vfprintf(file, format, args);
    va_end(args);
    std::fputc('\n', file);
    std::fclose(file);
}

}  // namespace standin
