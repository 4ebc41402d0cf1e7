#include "RegFile.h"

#include <cstdint>

#include "platform/Registry.h"

namespace qbrix::tools {

using platform::DWORD;

namespace {

constexpr std::string_view kLineEnd = "\r\n";
// The registry editor keeps hex lines within 80 columns, the continuation backslash included.
constexpr std::size_t kMaxLineLength = 80;
constexpr std::string_view kContinuationIndent = "  ";

bool IsBlank(char c) {
    return c == ' ' || c == '\t';
}

std::string_view TrimLeft(std::string_view text) {
    while (!text.empty() && IsBlank(text.front())) {
        text.remove_prefix(1);
    }
    return text;
}

std::string_view TrimRight(std::string_view text) {
    while (!text.empty() && IsBlank(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

int HexDigit(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// The length of the well-formed UTF-8 sequence at `at` (no overlong forms, surrogates or values
// past U+10FFFF); 0 when the byte there does not start one.
std::size_t Utf8SequenceLength(std::string_view text, std::size_t at) {
    auto byte = static_cast<unsigned char>(text[at]);
    std::size_t length = 0;
    std::uint32_t code = 0;
    if (byte < 0x80) {
        return 1;
    } else if ((byte & 0xE0) == 0xC0) {
        length = 2;
        code = byte & 0x1F;
    } else if ((byte & 0xF0) == 0xE0) {
        length = 3;
        code = byte & 0x0F;
    } else if ((byte & 0xF8) == 0xF0) {
        length = 4;
        code = byte & 0x07;
    } else {
        return 0;
    }
    if (at + length > text.size()) {
        return 0;
    }
    for (std::size_t k = 1; k < length; ++k) {
        auto next = static_cast<unsigned char>(text[at + k]);
        if ((next & 0xC0) != 0x80) {
            return 0;
        }
        code = (code << 6) | (next & 0x3F);
    }
    static const std::uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (code < kSmallest[length] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) {
        return 0;
    }
    return length;
}

bool StartsWithIgnoreCase(std::string_view text, std::string_view prefix) {
    if (text.size() < prefix.size()) {
        return false;
    }
    for (std::size_t i = 0; i < prefix.size(); ++i) {
        char a = text[i];
        if (a >= 'A' && a <= 'Z')
            a = static_cast<char>(a - 'A' + 'a');
        if (a != prefix[i]) {
            return false;
        }
    }
    return true;
}

void AppendUtf8(std::uint32_t code, std::string* out) {
    if (code < 0x80) {
        out->push_back(static_cast<char>(code));
    } else if (code < 0x800) {
        out->push_back(static_cast<char>(0xC0 | (code >> 6)));
        out->push_back(static_cast<char>(0x80 | (code & 0x3F)));
    } else if (code < 0x10000) {
        out->push_back(static_cast<char>(0xE0 | (code >> 12)));
        out->push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
        out->push_back(static_cast<char>(0x80 | (code & 0x3F)));
    } else {
        out->push_back(static_cast<char>(0xF0 | (code >> 18)));
        out->push_back(static_cast<char>(0x80 | ((code >> 12) & 0x3F)));
        out->push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
        out->push_back(static_cast<char>(0x80 | (code & 0x3F)));
    }
}

// The file as UTF-8 text: a UTF-8 byte-order mark is dropped, and a UTF-16LE file (byte-order
// mark FF FE) is converted, unpaired surrogates becoming U+FFFD.
std::string DecodeFile(std::string_view raw) {
    if (raw.substr(0, 3) == "\xEF\xBB\xBF") {
        return std::string(raw.substr(3));
    }
    if (raw.substr(0, 2) != "\xFF\xFE") {
        return std::string(raw);
    }
    std::string text;
    text.reserve(raw.size() / 2);
    auto unit = [&](std::size_t at) {
        return static_cast<std::uint32_t>(static_cast<unsigned char>(raw[at])) |
               (static_cast<std::uint32_t>(static_cast<unsigned char>(raw[at + 1])) << 8);
    };
    for (std::size_t at = 2; at + 1 < raw.size(); at += 2) {
        std::uint32_t code = unit(at);
        if (code >= 0xD800 && code <= 0xDBFF && at + 3 < raw.size()) {
            std::uint32_t low = unit(at + 2);
            if (low >= 0xDC00 && low <= 0xDFFF) {
                code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
                at += 2;
            }
        }
        if (code >= 0xD800 && code <= 0xDFFF) {
            code = 0xFFFD;
        }
        AppendUtf8(code, &text);
    }
    return text;
}

std::vector<std::string_view> SplitLines(std::string_view text) {
    std::vector<std::string_view> lines;
    while (!text.empty()) {
        std::size_t end = text.find('\n');
        std::string_view line = text.substr(0, end);
        if (!line.empty() && line.back() == '\r') {
            line.remove_suffix(1);
        }
        lines.push_back(line);
        if (end == std::string_view::npos) {
            break;
        }
        text.remove_prefix(end + 1);
    }
    return lines;
}

std::string Quote(std::string_view text) {
    std::string quoted = "\"";
    for (char c : text) {
        if (c == '\\' || c == '"') {
            quoted.push_back('\\');
        }
        quoted.push_back(c);
    }
    quoted.push_back('"');
    return quoted;
}

// Whether stored REG_SZ bytes can be written as "text" and read back identically: exactly one
// terminating zero at the end, no line break inside, valid UTF-8.
bool IsCleanText(std::string_view data) {
    if (data.empty() || data.back() != '\0') {
        return false;
    }
    std::string_view text = data.substr(0, data.size() - 1);
    return text.find_first_of(std::string_view("\0\r\n", 3)) == std::string_view::npos &&
           IsValidUtf8(text);
}

bool IsWritableName(std::string_view name) {
    return name.find_first_of(std::string_view("\0\r\n", 3)) == std::string_view::npos &&
           IsValidUtf8(name);
}

// A name as a file with the escape note writes it: "%" as %25, NUL, CR and LF and every byte
// that is not part of a UTF-8 sequence as %XX; UTF-8 sequences stay as they are.
std::string EscapeName(std::string_view name) {
    static const char kDigits[] = "0123456789ABCDEF";
    std::string escaped;
    for (std::size_t i = 0; i < name.size();) {
        auto byte = static_cast<unsigned char>(name[i]);
        std::size_t length = Utf8SequenceLength(name, i);
        if (length == 0 || byte == '%' || byte == '\0' || byte == '\r' || byte == '\n') {
            escaped.push_back('%');
            escaped.push_back(kDigits[byte >> 4]);
            escaped.push_back(kDigits[byte & 0xF]);
            ++i;
        } else {
            escaped.append(name.substr(i, length));
            i += length;
        }
    }
    return escaped;
}

// The bytes of a name written with %XX escapes; false for a "%" not followed by two hex digits.
bool UnescapeName(std::string_view text, std::string* name) {
    name->clear();
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            name->push_back(text[i]);
            continue;
        }
        if (i + 2 >= text.size() || HexDigit(text[i + 1]) < 0 || HexDigit(text[i + 2]) < 0) {
            return false;
        }
        name->push_back(static_cast<char>(HexDigit(text[i + 1]) * 16 + HexDigit(text[i + 2])));
        i += 2;
    }
    return true;
}

std::string HexNumber(DWORD value, int width) {
    static const char kDigits[] = "0123456789abcdef";
    std::string text;
    do {
        text.insert(text.begin(), kDigits[value & 0xF]);
        value >>= 4;
    } while (value != 0);
    while (static_cast<int>(text.size()) < width) {
        text.insert(text.begin(), '0');
    }
    return text;
}

// Reads the lines of one file, reporting faults with their line numbers.
class Parser {
  public:
    explicit Parser(std::vector<std::string_view> lines) : m_lines(std::move(lines)) {}

    int Run(RegFile* file, std::string* error);

  private:
    int Fail(std::size_t index, const std::string& what) {
        m_error = "line " + std::to_string(index + 1) + ": " + what;
        return 1;
    }
    int ParseSection(std::string_view line, RegFileSection* section);
    int ParseValue(std::string_view line, RegFileValue* value);
    // A quoted text starting at the opening quote; `*rest` is what follows the closing quote.
    int ParseQuoted(std::string_view text, std::string* out, std::string_view* rest,
                    const char* what);
    // The comma-separated bytes after "hex:" or "hex(N):", following continuation lines.
    int ParseHexBytes(std::string_view text, std::string* out);

    std::vector<std::string_view> m_lines;
    std::size_t m_index = 0;
    std::string m_error;
    bool m_escaped = false;  // the escape note came before the first key line
};

int Parser::Run(RegFile* file, std::string* error) {
    file->Sections().clear();
    if (m_lines.empty() || TrimRight(m_lines[0]) != RegFile::kHeader) {
        Fail(0, "the file does not begin with \"" + std::string(RegFile::kHeader) + "\"");
        *error = m_error;
        return 1;
    }
    for (m_index = 1; m_index < m_lines.size(); ++m_index) {
        std::string_view line = TrimLeft(m_lines[m_index]);
        int rc = 0;
        if (line.find('\0') != std::string_view::npos) {
            rc = Fail(m_index, "a NUL byte in the line (a .reg file is text)");
        } else if (line.empty() || line.front() == ';') {
            if (file->Sections().empty() && TrimRight(line) == RegFile::kEscapeNote) {
                m_escaped = true;
            }
            continue;
        } else if (line.front() == '[') {
            RegFileSection section;
            section.line = static_cast<int>(m_index + 1);
            rc = ParseSection(line, &section);
            if (rc == 0) {
                file->Sections().push_back(std::move(section));
            }
        } else if (line.front() == '@' || line.front() == '"') {
            if (file->Sections().empty()) {
                rc = Fail(m_index, "a value before the first [KEY] line");
            } else if (file->Sections().back().remove) {
                rc = Fail(m_index, "a value in a section that deletes its key");
            } else {
                RegFileValue value;
                value.line = static_cast<int>(m_index + 1);
                rc = ParseValue(line, &value);
                if (rc == 0) {
                    file->Sections().back().values.push_back(std::move(value));
                }
            }
        } else {
            std::string shown(line.substr(0, 40));
            rc = Fail(m_index, "unexpected text \"" + shown + "\"");
        }
        if (rc != 0) {
            *error = m_error;
            return 1;
        }
    }
    return 0;
}

int Parser::ParseSection(std::string_view line, RegFileSection* section) {
    line = TrimRight(line);
    if (line.size() < 2 || line.back() != ']') {
        return Fail(m_index, "the key line has no closing ]");
    }
    std::string_view inner = line.substr(1, line.size() - 2);
    if (!inner.empty() && inner.front() == '-') {
        section->remove = true;
        inner.remove_prefix(1);
    }
    std::string unescaped;
    if (m_escaped) {
        // Component by component, so that an escaped byte never splits the path.
        for (std::size_t start = 0;;) {
            std::size_t cut = inner.find('\\', start);
            std::string part;
            if (!UnescapeName(inner.substr(start, cut - start), &part)) {
                return Fail(m_index, "a % in the key name is not followed by two hex digits");
            }
            if (part.find('\\') != std::string::npos) {
                return Fail(m_index, "a key name cannot hold a backslash (%5C)");
            }
            unescaped += part;
            if (cut == std::string_view::npos) {
                break;
            }
            unescaped += '\\';
            start = cut + 1;
        }
        inner = unescaped;
    }
    std::string why;
    if (RegKeyPath::Parse(inner, &section->key, &why) != 0) {
        return Fail(m_index, why);
    }
    if (section->remove && section->key.IsRoot()) {
        return Fail(m_index, "a root key cannot be deleted");
    }
    return 0;
}

int Parser::ParseQuoted(std::string_view text, std::string* out, std::string_view* rest,
                        const char* what) {
    out->clear();
    for (std::size_t i = 1; i < text.size(); ++i) {
        char c = text[i];
        if (c == '"') {
            *rest = text.substr(i + 1);
            return 0;
        }
        if (c == '\\') {
            if (i + 1 >= text.size()) {
                break;
            }
            char next = text[++i];
            if (next != '\\' && next != '"') {
                return Fail(m_index, std::string("unknown escape \\") + next + " in the " + what +
                                         " (only \\\\ and \\\" are allowed)");
            }
            c = next;
        }
        out->push_back(c);
    }
    return Fail(m_index, std::string("the ") + what + " has no closing quote");
}

int Parser::ParseValue(std::string_view line, RegFileValue* value) {
    std::string_view rest;
    if (line.front() == '@') {
        rest = line.substr(1);
    } else if (ParseQuoted(line, &value->name, &rest, "value name") != 0) {
        return 1;
    } else if (m_escaped && !UnescapeName(std::string(value->name), &value->name)) {
        return Fail(m_index, "a % in the value name is not followed by two hex digits");
    }
    if (value->name.size() > platform::kMaxValueNameLength) {
        return Fail(m_index, "the value name is longer than 16383 bytes");
    }
    rest = TrimLeft(rest);
    if (rest.empty() || rest.front() != '=') {
        return Fail(m_index, "expected = after the value name");
    }
    rest = TrimLeft(rest.substr(1));

    if (!rest.empty() && rest.front() == '-') {
        if (!TrimRight(rest.substr(1)).empty()) {
            return Fail(m_index, "unexpected text after =-");
        }
        value->remove = true;
        return 0;
    }
    if (!rest.empty() && rest.front() == '"') {
        std::string_view after;
        if (ParseQuoted(rest, &value->data, &after, "text") != 0) {
            return 1;
        }
        if (!TrimRight(after).empty()) {
            return Fail(m_index, "unexpected text after the closing quote");
        }
        value->type = platform::REG_SZ;
        value->data.push_back('\0');
        return 0;
    }
    if (StartsWithIgnoreCase(rest, "dword:")) {
        std::string_view digits = TrimRight(rest.substr(6));
        if (digits.empty() || digits.size() > 8) {
            return Fail(m_index, "dword: needs 1 to 8 hex digits");
        }
        DWORD number = 0;
        for (char c : digits) {
            int digit = HexDigit(c);
            if (digit < 0) {
                return Fail(m_index, "dword: needs 1 to 8 hex digits");
            }
            number = (number << 4) | static_cast<DWORD>(digit);
        }
        value->type = platform::REG_DWORD;
        for (int i = 0; i < 4; ++i) {
            value->data.push_back(static_cast<char>((number >> (8 * i)) & 0xFF));
        }
        return 0;
    }
    if (StartsWithIgnoreCase(rest, "hex:")) {
        value->type = platform::REG_BINARY;
        return ParseHexBytes(rest.substr(4), &value->data);
    }
    if (StartsWithIgnoreCase(rest, "hex(")) {
        std::size_t close = rest.find(')');
        std::string_view digits = rest.substr(4, close == std::string_view::npos ? 0 : close - 4);
        if (close == std::string_view::npos || digits.empty() || digits.size() > 8 ||
            close + 1 >= rest.size() || rest[close + 1] != ':') {
            return Fail(m_index, "hex(N): needs a type number of 1 to 8 hex digits");
        }
        DWORD type = 0;
        for (char c : digits) {
            int digit = HexDigit(c);
            if (digit < 0) {
                return Fail(m_index, "hex(N): needs a type number of 1 to 8 hex digits");
            }
            type = (type << 4) | static_cast<DWORD>(digit);
        }
        value->type = type;
        return ParseHexBytes(rest.substr(close + 2), &value->data);
    }
    return Fail(m_index, "unknown value data (expected \"text\", dword:, hex:, hex(N): or -)");
}

int Parser::ParseHexBytes(std::string_view text, std::string* out) {
    out->clear();
    while (true) {
        text = TrimLeft(text);
        if (text.empty()) {
            return 0;
        }
        if (text.front() == '\\') {
            if (!TrimRight(text.substr(1)).empty()) {
                return Fail(m_index, "unexpected text after the continuation \\");
            }
            if (m_index + 1 >= m_lines.size()) {
                return Fail(m_index, "the value continues past the end of the file");
            }
            text = m_lines[++m_index];
            continue;
        }
        int high = HexDigit(text.front());
        if (high < 0) {
            return Fail(m_index, "invalid hex byte \"" + std::string(text.substr(0, 2)) + "\"");
        }
        int byte = high;
        text.remove_prefix(1);
        if (!text.empty() && HexDigit(text.front()) >= 0) {
            byte = byte * 16 + HexDigit(text.front());
            text.remove_prefix(1);
        }
        out->push_back(static_cast<char>(byte));
        text = TrimLeft(text);
        if (text.empty() || text.front() == '\\') {
            continue;
        }
        if (text.front() != ',') {
            return Fail(m_index, "expected , between hex bytes");
        }
        text.remove_prefix(1);
    }
}

}  // namespace

bool IsValidUtf8(std::string_view text) {
    for (std::size_t i = 0; i < text.size();) {
        std::size_t length = Utf8SequenceLength(text, i);
        if (length == 0) {
            return false;
        }
        i += length;
    }
    return true;
}

int RegFile::Parse(std::string_view content, RegFile* file, std::string* error) {
    std::string text = DecodeFile(content);
    Parser parser(SplitLines(text));
    return parser.Run(file, error);
}

std::string RegFile::FormatValue(const RegFileValue& value, bool escapeName) {
    std::string line =
        value.name.empty() ? "@=" : Quote(escapeName ? EscapeName(value.name) : value.name) + "=";
    if (value.remove) {
        return line + "-";
    }
    if (value.type == platform::REG_SZ && IsCleanText(value.data)) {
        return line + Quote(std::string_view(value.data).substr(0, value.data.size() - 1));
    }
    if (value.type == platform::REG_DWORD && value.data.size() == 4) {
        DWORD number = 0;
        for (int i = 3; i >= 0; --i) {
            number = (number << 8) | static_cast<unsigned char>(value.data[i]);
        }
        return line + "dword:" + HexNumber(number, 8);
    }
    line += value.type == platform::REG_BINARY ? "hex:" : "hex(" + HexNumber(value.type, 1) + "):";
    std::size_t column = line.size();
    for (std::size_t i = 0; i < value.data.size(); ++i) {
        line += HexNumber(static_cast<unsigned char>(value.data[i]), 2);
        column += 2;
        if (i + 1 == value.data.size()) {
            break;
        }
        line.push_back(',');
        column += 1;
        // Break when the next "xx," and the backslash would pass the line limit.
        if (column + 3 + 1 > kMaxLineLength) {
            line += "\\";
            line += kLineEnd;
            line += kContinuationIndent;
            column = kContinuationIndent.size();
        }
    }
    return line;
}

void RegFile::Format(std::string* text) const {
    // Names go as they are unless one of them cannot; then every name is escaped and the note
    // says so.
    bool escape = false;
    for (const RegFileSection& section : m_sections) {
        escape = escape || !IsWritableName(section.key.SubKey());
        for (const RegFileValue& value : section.values) {
            escape = escape || !IsWritableName(value.name);
        }
    }
    std::string out(kHeader);
    out += kLineEnd;
    if (escape) {
        out += kEscapeNote;
        out += kLineEnd;
    }
    out += kLineEnd;
    for (const RegFileSection& section : m_sections) {
        out += section.remove ? "[-" : "[";
        out += section.key.RootName();
        // Component by component: a stored name never holds a backslash.
        std::string_view rest = section.key.SubKey();
        while (!rest.empty()) {
            std::size_t cut = rest.find('\\');
            out += '\\';
            out += escape ? EscapeName(rest.substr(0, cut)) : std::string(rest.substr(0, cut));
            rest = cut == std::string_view::npos ? std::string_view() : rest.substr(cut + 1);
        }
        out += "]";
        out += kLineEnd;
        for (const RegFileValue& value : section.values) {
            out += FormatValue(value, escape);
            out += kLineEnd;
        }
        out += kLineEnd;
    }
    *text = std::move(out);
}

}  // namespace qbrix::tools
