#include "core/XmlFile.h"

#include <cstdint>
#include <fstream>
#include <optional>
#include <string_view>
#include <unordered_set>

#include "platform/CodePage.h"
#include "platform/Text.h"
#include "platform/Utf16.h"

namespace qbrix::core {

namespace {

bool IsSpace(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

std::optional<std::string> ReadWholeFile(const std::string& path, std::string& why) {
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    std::streamoff size = file ? static_cast<std::streamoff>(file.tellg()) : -1;
    if (size < 0) {
        why = "cannot be read";
        return std::nullopt;
    }
    if (static_cast<std::uint64_t>(size) > kMaxXmlFileBytes) {
        why = "is larger than " + std::to_string(kMaxXmlFileBytes >> 20) + " MB";
        return std::nullopt;
    }
    std::string bytes(static_cast<std::size_t>(size), '\0');
    file.seekg(0);
    if (size > 0 && !file.read(bytes.data(), size)) {
        why = "cannot be read";
        return std::nullopt;
    }
    return bytes;
}

void AppendUtf8(std::string& out, char32_t c) {
    if (c < 0x80) {
        out.push_back(static_cast<char>(c));
        return;
    }
    int extra = c < 0x800 ? 1 : c < 0x10000 ? 2 : 3;
    out.push_back(static_cast<char>(((0xFF00 >> (extra + 1)) & 0xFF) | (c >> (6 * extra))));
    for (int shift = 6 * (extra - 1); shift >= 0; shift -= 6) {
        out.push_back(static_cast<char>(0x80 | ((c >> shift) & 0x3F)));
    }
}

bool IsUnicodeScalar(char32_t c) {
    return c <= 0x10FFFF && (c < 0xD800 || c > 0xDFFF);
}

bool IsValidUtf8(std::string_view text) {
    // Valid UTF-8 comes back unchanged; anything invalid comes back as U+FFFD, never as itself.
    return platform::Utf16ToUtf8(platform::Utf8ToUtf16(text)) == text;
}

// UTF-16 (unit 2) or UTF-32 (unit 4) text into UTF-8; nullopt for an invalid sequence.
std::optional<std::string> DecodeWide(std::string_view bytes, int unit, bool bigEndian) {
    if (bytes.size() % static_cast<std::size_t>(unit) != 0) {
        return std::nullopt;
    }
    auto read = [&](std::size_t at) {
        char32_t value = 0;
        for (int i = 0; i < unit; ++i) {
            auto byte = static_cast<unsigned char>(
                bytes[at + static_cast<std::size_t>(bigEndian ? i : unit - 1 - i)]);
            value = value << 8 | byte;
        }
        return value;
    };
    std::string out;
    for (std::size_t at = 0; at < bytes.size(); at += static_cast<std::size_t>(unit)) {
        char32_t c = read(at);
        if (unit == 2 && c >= 0xD800 && c <= 0xDBFF && at + 2 < bytes.size()) {
            char32_t low = read(at + 2);
            if (low >= 0xDC00 && low <= 0xDFFF) {
                c = 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
                at += 2;
            }
        }
        if (!IsUnicodeScalar(c)) {
            return std::nullopt;
        }
        AppendUtf8(out, c);
    }
    return out;
}

// The encoding named in the XML declaration at the start of the text, upper-cased; empty when
// there is no declaration or it names none.
std::string DeclaredEncoding(std::string_view text) {
    if (text.substr(0, 5) != "<?xml" || text.size() < 6 || !IsSpace(text[5])) {
        return {};
    }
    std::string_view declaration = text.substr(0, text.find("?>"));
    std::size_t at = declaration.find("encoding");
    if (at == std::string_view::npos) {
        return {};
    }
    at += 8;
    while (at < declaration.size() && (IsSpace(declaration[at]) || declaration[at] == '=')) {
        ++at;
    }
    if (at >= declaration.size() || (declaration[at] != '"' && declaration[at] != '\'')) {
        return {};
    }
    std::size_t end = declaration.find(declaration[at], at + 1);
    if (end == std::string_view::npos) {
        return {};
    }
    return platform::ToUpperAscii(declaration.substr(at + 1, end - at - 1));
}

bool IsOneOf(const std::string& name, std::initializer_list<std::string_view> names) {
    for (std::string_view candidate : names) {
        if (name == candidate) {
            return true;
        }
    }
    return false;
}

// The document as UTF-8, from its byte-order mark, its first characters or its declared
// encoding; nullopt when the encoding is not supported or the bytes are invalid in it.
std::optional<std::string> DecodeDocument(std::string_view bytes) {
    auto starts = [&](std::string_view prefix) { return bytes.substr(0, prefix.size()) == prefix; };
    using namespace std::string_view_literals;
    std::optional<std::string> wide;
    if (starts("\0\0\xFE\xFF"sv)) {
        wide = DecodeWide(bytes.substr(4), 4, true);
    } else if (starts("\xFF\xFE\0\0"sv)) {
        wide = DecodeWide(bytes.substr(4), 4, false);
    } else if (starts("\xFE\xFF"sv)) {
        wide = DecodeWide(bytes.substr(2), 2, true);
    } else if (starts("\xFF\xFE"sv)) {
        wide = DecodeWide(bytes.substr(2), 2, false);
    } else if (starts("\0\0\0<"sv)) {
        wide = DecodeWide(bytes, 4, true);
    } else if (starts("<\0\0\0"sv)) {
        wide = DecodeWide(bytes, 4, false);
    } else if (starts("\0<\0?"sv)) {
        wide = DecodeWide(bytes, 2, true);
    } else if (starts("<\0?\0"sv)) {
        wide = DecodeWide(bytes, 2, false);
    } else {
        bool utf8Mark = starts("\xEF\xBB\xBF");
        std::string_view text = bytes.substr(utf8Mark ? 3 : 0);
        std::string declared = DeclaredEncoding(text);
        if (declared.empty() || declared == "UTF-8") {
            return IsValidUtf8(text) ? std::optional<std::string>(text) : std::nullopt;
        }
        if (utf8Mark) {
            return std::nullopt;
        }
        std::string out;
        if (IsOneOf(declared, {"WINDOWS-1252", "CP1252", "X-CP1252"})) {
            return platform::AnsiToUtf8(text);
        }
        if (IsOneOf(declared, {"ISO-8859-1", "ISO8859-1", "ISO_8859-1", "LATIN1", "L1"})) {
            for (char c : text) {
                AppendUtf8(out, static_cast<unsigned char>(c));
            }
            return out;
        }
        if (IsOneOf(declared, {"US-ASCII", "ASCII"})) {
            for (char c : text) {
                if (static_cast<unsigned char>(c) >= 0x80) {
                    return std::nullopt;
                }
            }
            return std::string(text);
        }
        return std::nullopt;
    }
    if (!wide) {
        return std::nullopt;
    }
    std::string declared = DeclaredEncoding(*wide);
    if (!declared.empty() &&
        !IsOneOf(declared, {"UTF-16", "UTF-16LE", "UTF-16BE", "UTF-32", "UTF-32LE", "UTF-32BE",
                            "UCS-2", "UCS-4", "UNICODE"})) {
        return std::nullopt;
    }
    return wide;
}

// At '&': a predefined entity or a reference to a character pugixml can hold; `at` moves past
// the ';'.
bool TakeReference(std::string_view text, std::size_t& at) {
    std::size_t end = text.find(';', at);
    if (end == std::string_view::npos) {
        return false;
    }
    std::string_view name = text.substr(at + 1, end - at - 1);
    at = end + 1;
    if (name == "amp" || name == "lt" || name == "gt" || name == "quot" || name == "apos") {
        return true;
    }
    if (name.size() < 2 || name[0] != '#') {
        return false;
    }
    bool hex = name[1] == 'x';
    std::string_view digits = name.substr(hex ? 2 : 1);
    if (digits.empty() || digits.size() > 8) {
        return false;
    }
    char32_t value = 0;
    for (char c : digits) {
        int digit = c >= '0' && c <= '9'          ? c - '0'
                    : hex && c >= 'a' && c <= 'f' ? c - 'a' + 10
                    : hex && c >= 'A' && c <= 'F' ? c - 'A' + 10
                                                  : -1;
        if (digit < 0) {
            return false;
        }
        value = value * (hex ? 16 : 10) + static_cast<char32_t>(digit);
    }
    // A NUL cannot be held in a text; control characters are taken, as this program writes a
    // text holding one as a character reference.
    return value != 0 && IsUnicodeScalar(value) && value != 0xFFFE && value != 0xFFFF;
}

// The well-formedness rules pugixml does not check, on the text outside markup, attribute values
// and the nesting depth, and the depth limit; empty when they pass, else what is wrong.
// Constructs left open are pugixml's to refuse.
std::string LexicalProblem(std::string_view text) {
    constexpr const char* kMalformed = "is not well-formed XML";
    int depth = 0;
    std::size_t at = 0;
    auto skipPast = [&](std::string_view end, std::size_t from) {
        std::size_t found = text.find(end, from);
        at = found == std::string_view::npos ? text.size() : found + end.size();
    };
    while (at < text.size()) {
        std::string_view rest = text.substr(at);
        if (rest.starts_with("<!--")) {
            skipPast("-->", at + 4);
        } else if (rest.starts_with("<![CDATA[")) {
            skipPast("]]>", at + 9);
        } else if (rest.starts_with("<?")) {
            skipPast("?>", at + 2);
        } else if (rest.starts_with("<!")) {
            std::size_t close = text.find('>', at);
            std::size_t subset = text.find('[', at);
            skipPast(subset < close ? "]" : ">", at);
            if (subset < close) {
                skipPast(">", at);
            }
        } else if (rest.starts_with("</")) {
            --depth;
            skipPast(">", at);
        } else if (rest[0] == '<') {
            char quote = 0;
            std::size_t end = at + 1;
            for (; end < text.size(); ++end) {
                char c = text[end];
                if (quote != 0) {
                    if (c == quote) {
                        quote = 0;
                    } else if (c == '<') {
                        return kMalformed;
                    } else if (c == '&') {
                        if (!TakeReference(text, end)) {
                            return kMalformed;
                        }
                        --end;
                    }
                } else if (c == '"' || c == '\'') {
                    quote = c;
                } else if (c == '>') {
                    break;
                }
            }
            if (end < text.size() && text[end - 1] != '/' && ++depth > kMaxXmlDepth) {
                return "nests elements more than " + std::to_string(kMaxXmlDepth) + " levels deep";
            }
            at = end + 1;
        } else if (rest[0] == '&') {
            if (!TakeReference(text, at)) {
                return kMalformed;
            }
            if (depth <= 0) {
                return kMalformed;
            }
        } else {
            if ((depth <= 0 && !IsSpace(rest[0])) || rest.starts_with("]]>")) {
                return kMalformed;
            }
            ++at;
        }
    }
    return {};
}

// Duplicate attributes below `node`, found without recursion (the tree may be deep).
bool HasDuplicateAttribute(pugi::xml_node node) {
    std::unordered_set<std::string_view> names;
    for (pugi::xml_node current = node; current;) {
        names.clear();
        for (pugi::xml_attribute attribute : current.attributes()) {
            if (!names.insert(attribute.name()).second) {
                return true;
            }
        }
        if (current.first_child()) {
            current = current.first_child();
            continue;
        }
        while (current && current != node && !current.next_sibling()) {
            current = current.parent();
        }
        current = current && current != node ? current.next_sibling() : pugi::xml_node();
    }
    return false;
}

// Every name, value and attribute of the tree through `convert`, without recursion.
template <typename Convert>
void ConvertTree(pugi::xml_node root, Convert convert) {
    for (pugi::xml_node current = root.first_child(); current;) {
        if (*current.name() != '\0') {
            current.set_name(convert(current.name()).c_str());
        }
        if (*current.value() != '\0') {
            current.set_value(convert(current.value()).c_str());
        }
        for (pugi::xml_attribute a : current.attributes()) {
            a.set_name(convert(a.name()).c_str());
            a.set_value(convert(a.value()).c_str());
        }
        if (current.first_child()) {
            current = current.first_child();
            continue;
        }
        while (current && current != root && !current.next_sibling()) {
            current = current.parent();
        }
        current = current && current != root ? current.next_sibling() : pugi::xml_node();
    }
}

}  // namespace

bool LoadXmlFile(const std::string& path, unsigned options, pugi::xml_document& document,
                 std::string* why) {
    std::string problem;
    auto refuse = [&](std::string text) {
        if (why != nullptr) {
            *why = std::move(text);
        }
        return false;
    };
    std::optional<std::string> bytes = ReadWholeFile(path, problem);
    if (!bytes) {
        return refuse(problem);
    }
    std::optional<std::string> text = DecodeDocument(*bytes);
    if (!text) {
        return refuse("is in an unsupported encoding or holds bytes invalid in its encoding");
    }
    if (std::string lexical = LexicalProblem(*text); !lexical.empty()) {
        return refuse(std::move(lexical));
    }
    if (!document.load_buffer(text->data(), text->size(), options, pugi::encoding_utf8)) {
        return refuse("is not well-formed XML");
    }
    int roots = 0;
    for (pugi::xml_node child : document.children()) {
        roots += child.type() == pugi::node_element ? 1 : 0;
    }
    if (roots != 1 || HasDuplicateAttribute(document)) {
        document.reset();
        return refuse("is not well-formed XML");
    }
    ConvertTree(document, [](const char* utf8) { return platform::Utf8ToAnsi(utf8); });
    return true;
}

bool SaveXmlFile(pugi::xml_document& document, const std::string& path) {
    ConvertTree(document, [](const char* ansi) { return platform::AnsiToUtf8(ansi); });
    return document.save_file(path.c_str(), "", pugi::format_raw | pugi::format_no_declaration,
                              pugi::encoding_utf8);
}

std::string XmlElementText(const pugi::xml_node& element) {
    std::string text;
    for (pugi::xml_node current = element.first_child(); current;) {
        if (current.type() == pugi::node_pcdata || current.type() == pugi::node_cdata) {
            text += current.value();
        }
        if (current.type() == pugi::node_element && current.first_child()) {
            current = current.first_child();
            continue;
        }
        while (current && current != element && !current.next_sibling()) {
            current = current.parent();
        }
        current = current && current != element ? current.next_sibling() : pugi::xml_node();
    }
    return text;
}

bool IsXmlBlank(const char* text) {
    for (; *text != '\0'; ++text) {
        if (!IsSpace(*text)) {
            return false;
        }
    }
    return true;
}

}  // namespace qbrix::core
