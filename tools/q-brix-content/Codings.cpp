#include "Codings.h"

#include <zlib.h>

#include "platform/Text.h"

namespace qbrix::contentproc {

namespace {

std::string_view Trim(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) {
        text.remove_prefix(1);
    }
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) {
        text.remove_suffix(1);
    }
    return text;
}

// windowBits as zlib takes them: 15 + 16 for gzip, 15 for the zlib format, -15 for raw deflate.
DecodeResult Inflate(std::string_view body, int windowBits, std::size_t limit, std::string& out) {
    z_stream stream{};
    if (inflateInit2(&stream, windowBits) != Z_OK) {
        return DecodeResult::Corrupt;
    }
    out.clear();
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(body.data()));
    stream.avail_in = static_cast<uInt>(body.size());
    char chunk[16384];
    int rc = Z_OK;
    DecodeResult result = DecodeResult::Ok;
    while (rc != Z_STREAM_END) {
        stream.next_out = reinterpret_cast<Bytef*>(chunk);
        stream.avail_out = sizeof(chunk);
        rc = inflate(&stream, Z_NO_FLUSH);
        if (rc != Z_OK && rc != Z_STREAM_END) {
            result = DecodeResult::Corrupt;  // also a stream cut short (Z_BUF_ERROR)
            break;
        }
        std::size_t produced = sizeof(chunk) - stream.avail_out;
        if (out.size() + produced > limit) {
            result = DecodeResult::TooLarge;
            break;
        }
        out.append(chunk, produced);
        if (rc == Z_OK && stream.avail_in == 0 && produced == 0) {
            result = DecodeResult::Corrupt;
            break;
        }
    }
    inflateEnd(&stream);
    return result;
}

std::string HtmlEscape(const std::string& text) {
    std::string escaped;
    for (char c : text) {
        switch (c) {
            case '<':
                escaped += "&lt;";
                break;
            case '>':
                escaped += "&gt;";
                break;
            case '&':
                escaped += "&amp;";
                break;
            case '"':
                escaped += "&quot;";
                break;
            default:
                escaped += c;
        }
    }
    return escaped;
}

}  // namespace

Coding CodingOf(std::string_view contentEncoding) {
    std::string_view coding = Trim(contentEncoding);
    if (coding.empty() || platform::EqualsIgnoreCase(coding, "identity")) {
        return Coding::Identity;
    }
    if (platform::EqualsIgnoreCase(coding, "gzip") || platform::EqualsIgnoreCase(coding, "x-gzip")) {
        return Coding::Gzip;
    }
    if (platform::EqualsIgnoreCase(coding, "deflate")) {
        return Coding::Deflate;
    }
    return Coding::Unknown;
}

DecodeResult Decode(Coding coding, std::string_view body, std::size_t limit, std::string& out) {
    switch (coding) {
        case Coding::Identity:
            if (body.size() > limit) {
                return DecodeResult::TooLarge;
            }
            out.assign(body);
            return DecodeResult::Ok;
        case Coding::Gzip:
            return Inflate(body, 15 + 16, limit, out);
        case Coding::Deflate: {
            DecodeResult result = Inflate(body, 15, limit, out);
            return result == DecodeResult::Corrupt ? Inflate(body, -15, limit, out) : result;
        }
        case Coding::Unknown:
            break;
    }
    return DecodeResult::Corrupt;
}

std::string BlockedPage(const std::string& address, const std::string& virus,
                        const std::string& quarantine) {
    std::string page =
        "<!DOCTYPE html>\n<html><head><title>q-Brix: blocked</title></head><body>\n"
        "<h1>q-Brix blocked this content</h1>\n<p>The antivirus found <b>" +
        HtmlEscape(virus) + "</b> in <code>" + HtmlEscape(address) + "</code>.</p>\n";
    if (!quarantine.empty()) {
        page +=
            "<p>A copy is kept in quarantine: <code>" + HtmlEscape(quarantine) + "</code></p>\n";
    }
    return page + "</body></html>\n";
}

std::string BlockedMail(std::string_view original, const std::string& virus,
                        const std::string& quarantine) {
    std::string headers;
    std::size_t at = 0;
    while (at < original.size()) {
        std::size_t end = original.find('\n', at);
        std::string_view line =
            original.substr(at, end == std::string_view::npos ? std::string_view::npos : end - at);
        if (!line.empty() && line.back() == '\r') {
            line.remove_suffix(1);
        }
        if (line.empty()) {
            break;  // end of the header block
        }
        for (std::string_view name : {"from:", "to:", "date:", "subject:"}) {
            if (platform::EqualsIgnoreCase(line.substr(0, name.size()), name)) {
                if (name == "subject:") {
                    headers += "Subject: [q-Brix: virus removed]" + std::string(line.substr(8));
                } else {
                    headers += line;
                }
                headers += "\r\n";
            }
        }
        if (end == std::string_view::npos) {
            break;
        }
        at = end + 1;
    }
    std::string mail = headers +
                       "MIME-Version: 1.0\r\nContent-Type: text/plain; charset=us-ascii\r\n\r\n"
                       "q-Brix removed this message: the antivirus found " +
                       virus + " in it.\r\n";
    if (!quarantine.empty()) {
        mail += "A copy is kept in quarantine: " + quarantine + "\r\n";
    }
    return mail;
}

}  // namespace qbrix::contentproc
