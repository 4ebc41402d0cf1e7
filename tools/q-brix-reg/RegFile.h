// The ".reg" text format of registry exports: a header line, then "[KEY]" sections with one
// value per line. The file is written as UTF-8 with CR LF line ends; reading accepts LF or CR LF,
// a UTF-8 byte-order mark, and UTF-16LE files (with their byte-order mark) as the Windows
// registry editor writes them.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "RegKeyPath.h"
#include "platform/WinTypes.h"

namespace qbrix::tools {

struct RegFileValue {
    std::string name;     // empty for the unnamed value, written "@"
    bool remove = false;  // "name"=- deletes the value on import
    platform::DWORD type = platform::REG_NONE;
    std::string data;  // the stored bytes, exactly
    int line = 0;      // where the value starts in a parsed file
};

struct RegFileSection {
    RegKeyPath key;
    bool remove = false;  // "[-KEY]" deletes the key with its whole tree on import
    std::vector<RegFileValue> values;
    int line = 0;
};

class RegFile {
  public:
    static constexpr std::string_view kHeader = "Windows Registry Editor Version 5.00";
    // The comment that makes the key and value names of a file hold %XX escapes, each the byte
    // with the hex value XX. Written after the header when a name cannot be written as it is;
    // read when it comes before the first key line.
    static constexpr std::string_view kEscapeNote =
        "; q-brix-reg: names hold %XX escapes (XX a byte in hex)";

    // Parses and validates a whole file. 0 on success; 1 with `*error` set to
    // "line N: <what is wrong>" for the first fault, leaving `*file` unspecified.
    static int Parse(std::string_view content, RegFile* file, std::string* error);

    // The file text, valid UTF-8 whatever the names hold. When a key or value name holds bytes
    // that are not UTF-8, a NUL, CR or LF, the escape note follows the header and every name
    // is written escaped: "%" as %25, those bytes as %XX, UTF-8 sequences as they are. Parse
    // gives back the same bytes.
    void Format(std::string* text) const;

    // One value as its line(s) without the final line end: text values as "..." when their
    // bytes are a clean text with its terminator, 4-byte REG_DWORD as dword:, REG_BINARY as
    // hex:, everything else as hex(N): so that the bytes come back exactly. The name is written
    // escaped when `escapeName`.
    static std::string FormatValue(const RegFileValue& value, bool escapeName = false);

    std::vector<RegFileSection>& Sections() { return m_sections; }
    const std::vector<RegFileSection>& Sections() const { return m_sections; }

  private:
    std::vector<RegFileSection> m_sections;
};

// True when the bytes are well-formed UTF-8 (no overlong forms, surrogates or values past
// U+10FFFF).
bool IsValidUtf8(std::string_view text);

}  // namespace qbrix::tools
