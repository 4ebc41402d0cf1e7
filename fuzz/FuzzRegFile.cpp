// libFuzzer target: .reg files of any content, parsed, written again and parsed back; a file
// that parses writes a file that parses back to the same sections and values.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "RegFile.h"

namespace {

bool SameFile(const qbrix::tools::RegFile& a, const qbrix::tools::RegFile& b) {
    if (a.Sections().size() != b.Sections().size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.Sections().size(); ++i) {
        const auto& x = a.Sections()[i];
        const auto& y = b.Sections()[i];
        if (x.key.Full() != y.key.Full() || x.remove != y.remove ||
            x.values.size() != y.values.size()) {
            return false;
        }
        for (std::size_t k = 0; k < x.values.size(); ++k) {
            const auto& v = x.values[k];
            const auto& w = y.values[k];
            if (v.name != w.name || v.remove != w.remove || v.type != w.type || v.data != w.data) {
                return false;
            }
        }
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view content(reinterpret_cast<const char*>(data), size);
    qbrix::tools::RegFile file;
    std::string error;
    if (qbrix::tools::RegFile::Parse(content, &file, &error) != 0) {
        return 0;
    }
    std::string text;
    file.Format(&text);
    qbrix::tools::RegFile again;
    if (qbrix::tools::RegFile::Parse(text, &again, &error) != 0 || !SameFile(file, again)) {
        std::abort();
    }
    return 0;
}
