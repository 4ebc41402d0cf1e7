#include "RegCommand.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <istream>
#include <memory>
#include <ostream>
#include <sstream>

#include "RegFile.h"
#include "core/RegistryKey.h"
#include "platform/Platform.h"
#include "platform/Text.h"
#include "platform/posix/PosixPlatform.h"

namespace qbrix::tools {

using platform::DWORD;
using platform::HKEY;
using platform::LONG;

namespace {

constexpr std::string_view kUsage =
    "Usage: q-brix-reg [--root DIR] COMMAND ...\n"
    "\n"
    "  q-brix-reg query KEY [/v NAME | /ve] [/s]\n"
    "  q-brix-reg add KEY [/v NAME | /ve] [/t TYPE] [/d DATA] [/f]\n"
    "  q-brix-reg delete KEY [/v NAME | /ve | /va] [/f]\n"
    "  q-brix-reg export KEY FILE\n"
    "  q-brix-reg import FILE\n"
    "\n"
    "  KEY      ROOT\\SUBKEY, ROOT one of HKLM, HKCU, HKCR, HKU (or HKEY_LOCAL_MACHINE,\n"
    "           HKEY_CURRENT_USER, HKEY_CLASSES_ROOT, HKEY_USERS)\n"
    "  /v NAME  the value NAME; /ve the unnamed value; /va every value of the key\n"
    "  /s       query the key and all of its sub-keys\n"
    "  /t TYPE  REG_SZ (default), REG_EXPAND_SZ, REG_MULTI_SZ, REG_DWORD, REG_BINARY, REG_NONE\n"
    "  /d DATA  REG_DWORD: decimal or 0x hex; REG_BINARY, REG_NONE: hex digits;\n"
    "           REG_MULTI_SZ: strings separated by \\0\n"
    "  /f       do not ask before overwriting or deleting\n"
    "  FILE     a .reg file (written as UTF-8 with CR LF line ends)\n"
    "  --root DIR  the data root holding the registry store (default: $QBRIX_ROOT, else the\n"
    "              per-user or system state directory)\n";

std::string Upper(std::string_view text) {
    return platform::ToUpperAscii(text);
}

std::string Lower(std::string_view text) {
    std::string lower(text);
    for (char& c : lower) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return lower;
}

struct TypeName {
    DWORD type;
    const char* name;
};

const TypeName kTypeNames[] = {
    {0, "REG_NONE"},
    {1, "REG_SZ"},
    {2, "REG_EXPAND_SZ"},
    {3, "REG_BINARY"},
    {4, "REG_DWORD"},
    {5, "REG_DWORD_BIG_ENDIAN"},
    {6, "REG_LINK"},
    {7, "REG_MULTI_SZ"},
    {8, "REG_RESOURCE_LIST"},
    {9, "REG_FULL_RESOURCE_DESCRIPTOR"},
    {10, "REG_RESOURCE_REQUIREMENTS_LIST"},
    {11, "REG_QWORD"},
};

std::string NameOfType(DWORD type) {
    for (const TypeName& entry : kTypeNames) {
        if (entry.type == type) {
            return entry.name;
        }
    }
    return "REG_UNKNOWN(" + std::to_string(type) + ")";
}

std::string UpperHex(std::string_view bytes) {
    static const char kDigits[] = "0123456789ABCDEF";
    std::string text;
    for (char c : bytes) {
        auto byte = static_cast<unsigned char>(c);
        text.push_back(kDigits[byte >> 4]);
        text.push_back(kDigits[byte & 0xF]);
    }
    return text;
}

std::string LowerHexNumber(std::uint64_t value) {
    std::ostringstream text;
    text << "0x" << std::hex << value;
    return text.str();
}

std::uint64_t LittleEndian(std::string_view bytes) {
    std::uint64_t value = 0;
    for (std::size_t i = bytes.size(); i > 0; --i) {
        value = (value << 8) | static_cast<unsigned char>(bytes[i - 1]);
    }
    return value;
}

// The data column of a query line, as the reg command shows each type.
std::string DisplayData(DWORD type, std::string_view data) {
    switch (type) {
        case platform::REG_SZ:
        case platform::REG_EXPAND_SZ:
            return std::string(data.substr(0, data.find('\0')));
        case platform::REG_MULTI_SZ: {
            while (!data.empty() && data.back() == '\0') {
                data.remove_suffix(1);
            }
            std::string text;
            for (char c : data) {
                if (c == '\0') {
                    text += "\\0";
                } else {
                    text.push_back(c);
                }
            }
            return text;
        }
        case platform::REG_DWORD:
            if (data.size() == 4) {
                return LowerHexNumber(LittleEndian(data));
            }
            break;
        case platform::REG_DWORD_BIG_ENDIAN:
            if (data.size() == 4) {
                std::uint64_t value = 0;
                for (char c : data) {
                    value = (value << 8) | static_cast<unsigned char>(c);
                }
                return LowerHexNumber(value);
            }
            break;
        case platform::REG_QWORD:
            if (data.size() == 8) {
                return LowerHexNumber(LittleEndian(data));
            }
            break;
        default:
            break;
    }
    return UpperHex(data);
}

std::string QueryLine(const RegFileValue& value) {
    return "    " + (value.name.empty() ? std::string("(Default)") : value.name) + "    " +
           NameOfType(value.type) + "    " + DisplayData(value.type, value.data) + "\n";
}

// A key handle closed when it goes out of scope; predefined roots are never closed.
class OpenedKey {
  public:
    OpenedKey() = default;
    ~OpenedKey() { Close(); }
    OpenedKey(const OpenedKey&) = delete;
    OpenedKey& operator=(const OpenedKey&) = delete;

    LONG Open(HKEY parent, std::string_view subKey, platform::REGSAM access) {
        Close();
        return platform::Current().Reg().OpenKeyEx(parent, subKey, access, &m_key);
    }
    LONG Create(HKEY parent, std::string_view subKey) {
        Close();
        DWORD disposition = 0;
        return platform::Current().Reg().CreateKeyEx(
            parent, subKey, platform::REG_OPTION_NON_VOLATILE, platform::KEY_ALL_ACCESS, &m_key,
            &disposition);
    }
    void Close() {
        if (m_key != nullptr) {
            platform::Current().Reg().CloseKey(m_key);
            m_key = nullptr;
        }
    }
    HKEY Get() const { return m_key; }
    void Swap(OpenedKey& other) { std::swap(m_key, other.m_key); }

  private:
    HKEY m_key = nullptr;
};

struct KeyContents {
    std::vector<RegFileValue> values;  // in index order
    std::vector<std::string> subkeys;  // in index order
};

LONG ReadKey(HKEY key, KeyContents* contents) {
    platform::Registry& registry = platform::Current().Reg();
    DWORD longestData = 0;
    if (LONG rc = registry.QueryInfoKey(key, nullptr, nullptr, nullptr, nullptr, &longestData);
        rc != 0) {
        return rc;
    }
    std::string name(platform::kMaxValueNameLength + 1, '\0');
    std::string data(longestData, '\0');
    for (DWORD index = 0;;) {
        DWORD nameSize = static_cast<DWORD>(name.size());
        DWORD dataSize = static_cast<DWORD>(data.size());
        DWORD type = 0;
        LONG rc = registry.EnumValue(key, index, name.data(), &nameSize, &type,
                                     reinterpret_cast<platform::BYTE*>(data.data()), &dataSize);
        if (rc == static_cast<LONG>(platform::ERROR_NO_MORE_ITEMS)) {
            break;
        }
        if (rc == static_cast<LONG>(platform::ERROR_MORE_DATA)) {
            // Another process grew a value since the size was taken: make room and retry.
            if (dataSize > data.size()) {
                data.resize(dataSize);
            } else {
                name.resize(name.size() * 2);
            }
            continue;
        }
        if (rc != 0) {
            return rc;
        }
        contents->values.push_back(
            RegFileValue{name.substr(0, nameSize), false, type, data.substr(0, dataSize), 0});
        ++index;
    }
    char child[1024];
    for (DWORD index = 0;; ++index) {
        DWORD childSize = sizeof(child);
        LONG rc = registry.EnumKeyEx(key, index, child, &childSize);
        if (rc == static_cast<LONG>(platform::ERROR_NO_MORE_ITEMS)) {
            break;
        }
        if (rc != 0) {
            return rc;
        }
        contents->subkeys.emplace_back(child, childSize);
    }
    return 0;
}

using KeyVisitor = std::function<void(const RegKeyPath&, const KeyContents&)>;

// What VisitTree returns for a tree deeper than a registry key may be (only a store written by
// other means holds one).
constexpr LONG kTreeTooDeep = -1;

std::size_t Depth(const RegKeyPath& path) {
    const std::string& subKey = path.SubKey();
    return subKey.empty()
               ? 0
               : 1 + static_cast<std::size_t>(std::count(subKey.begin(), subKey.end(), '\\'));
}

// The key, then each sub-key's tree in enumeration order. The walk keeps its open keys in a
// list, not on the call stack; a key at platform::kMaxKeyDepth that has sub-keys stops it with
// kTreeTooDeep and `*tooDeep` set to that key.
LONG VisitTree(HKEY key, const RegKeyPath& path, const KeyVisitor& visit, RegKeyPath* tooDeep) {
    struct Level {
        std::unique_ptr<OpenedKey> opened;  // null for `key`, which the caller owns
        HKEY key;
        RegKeyPath path;
        std::size_t depth;
        std::vector<std::string> subkeys;
        std::size_t next = 0;
    };
    std::vector<Level> levels;
    auto enter = [&](std::unique_ptr<OpenedKey> opened, HKEY handle, RegKeyPath at,
                     std::size_t depth) {
        KeyContents contents;
        if (LONG rc = ReadKey(handle, &contents); rc != 0) {
            return rc;
        }
        visit(at, contents);
        levels.push_back(
            Level{std::move(opened), handle, std::move(at), depth, std::move(contents.subkeys)});
        return LONG{0};
    };
    if (LONG rc = enter(nullptr, key, path, Depth(path)); rc != 0) {
        return rc;
    }
    while (!levels.empty()) {
        Level& top = levels.back();
        if (top.next == top.subkeys.size()) {
            levels.pop_back();
            continue;
        }
        if (top.depth >= platform::kMaxKeyDepth) {
            *tooDeep = top.path;
            return kTreeTooDeep;
        }
        const std::string& name = top.subkeys[top.next++];
        auto child = std::make_unique<OpenedKey>();
        if (LONG rc = child->Open(top.key, name, platform::KEY_READ); rc != 0) {
            return rc;
        }
        HKEY handle = child->Get();
        RegKeyPath at = top.path.Child(name);
        std::size_t depth = top.depth + 1;
        if (LONG rc = enter(std::move(child), handle, std::move(at), depth); rc != 0) {
            return rc;
        }
    }
    return 0;
}

// The path with every component spelt as stored (the store keeps the case a key was created
// with; exports must recreate exactly that). ERROR_FILE_NOT_FOUND when a component is missing.
LONG StoredPath(const RegKeyPath& typed, RegKeyPath* stored) {
    *stored = typed;
    stored->SetSubKey("");
    platform::Registry& registry = platform::Current().Reg();
    HKEY parent = typed.Root();
    OpenedKey current;
    std::string_view rest = typed.SubKey();
    while (!rest.empty()) {
        std::size_t cut = rest.find('\\');
        std::string_view part = rest.substr(0, cut);
        rest = cut == std::string_view::npos ? std::string_view() : rest.substr(cut + 1);
        std::string match;
        char child[1024];
        for (DWORD index = 0;; ++index) {
            DWORD childSize = sizeof(child);
            LONG rc = registry.EnumKeyEx(parent, index, child, &childSize);
            if (rc == static_cast<LONG>(platform::ERROR_NO_MORE_ITEMS)) {
                return static_cast<LONG>(platform::ERROR_FILE_NOT_FOUND);
            }
            if (rc != 0) {
                return rc;
            }
            if (platform::EqualsIgnoreCase(std::string_view(child, childSize), part)) {
                match.assign(child, childSize);
                break;
            }
        }
        OpenedKey next;
        if (LONG rc = next.Open(parent, match, platform::KEY_READ); rc != 0) {
            return rc;
        }
        current.Swap(next);
        parent = current.Get();
        *stored = stored->Child(match);
    }
    return 0;
}

// `context` (e.g. "line 4: cannot write [KEY]: ") goes before the platform's message text.
int ReportRegistryError(RegConsole& console, LONG rc, const std::string& context = "") {
    if (context.empty() && (rc == static_cast<LONG>(platform::ERROR_FILE_NOT_FOUND) ||
                            rc == static_cast<LONG>(platform::ERROR_PATH_NOT_FOUND))) {
        console.err << RegCommand::kNotFound << "\n";
        return RegCommand::kFailure;
    }
    std::string text = platform::GetErrorMessageText(static_cast<DWORD>(rc));
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) {
        text.pop_back();
    }
    if (text.empty()) {
        text = "Error accessing the registry (error " + std::to_string(rc) + ").";
    }
    console.err << "ERROR: " << context << text << "\n";
    return RegCommand::kFailure;
}

// The failure of a walk: a tree too deep is named, anything else is the registry's error.
int ReportWalkError(RegConsole& console, LONG rc, const RegKeyPath& tooDeep) {
    if (rc != kTreeTooDeep) {
        return ReportRegistryError(console, rc);
    }
    console.err << "ERROR: " << tooDeep.Full() << " has sub-keys more than "
                << platform::kMaxKeyDepth
                << " levels deep, deeper than a registry key may be; delete them with "
                   "\"q-brix-reg delete\"\n";
    return RegCommand::kFailure;
}

// Asks until the answer starts with Y or N; the end of input counts as No.
bool Confirm(RegConsole& console, const std::string& question) {
    while (true) {
        console.out << question << std::flush;
        std::string answer;
        if (!std::getline(console.in, answer)) {
            console.out << "\n";
            return false;
        }
        std::size_t first = answer.find_first_not_of(" \t\r");
        char letter = first == std::string::npos ? '\0' : answer[first];
        if (letter == 'y' || letter == 'Y') {
            return true;
        }
        if (letter == 'n' || letter == 'N') {
            return false;
        }
    }
}

// The confirmation step of add and delete: 0 to go on, else the exit status.
int ConfirmOrRefuse(RegConsole& console, bool force, const std::string& question,
                    const std::string& refusal) {
    if (force) {
        return RegCommand::kSuccess;
    }
    if (!console.interactive) {
        console.err << "ERROR: " << refusal << "\n";
        return RegCommand::kFailure;
    }
    if (!Confirm(console, question)) {
        console.out << RegCommand::kCanceled << "\n";
        return RegCommand::kFailure;
    }
    return RegCommand::kSuccess;
}

const RegFileValue* FindValue(const KeyContents& contents, std::string_view name) {
    for (const RegFileValue& value : contents.values) {
        if (platform::EqualsIgnoreCase(value.name, name)) {
            return &value;
        }
    }
    return nullptr;
}

bool ParseNumber(std::string_view text, DWORD* number) {
    int base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        text.remove_prefix(2);
    }
    if (text.empty() || text.size() > 10) {
        return false;
    }
    std::uint64_t value = 0;
    for (char c : text) {
        int digit = -1;
        if (c >= '0' && c <= '9')
            digit = c - '0';
        if (base == 16 && c >= 'a' && c <= 'f')
            digit = c - 'a' + 10;
        if (base == 16 && c >= 'A' && c <= 'F')
            digit = c - 'A' + 10;
        if (digit < 0) {
            return false;
        }
        value = value * static_cast<std::uint64_t>(base) + static_cast<std::uint64_t>(digit);
    }
    if (value > 0xFFFFFFFFu) {
        return false;
    }
    *number = static_cast<DWORD>(value);
    return true;
}

}  // namespace

std::string_view RegCommand::Usage() {
    return kUsage;
}

int RegCommand::ParseData(std::string_view text, std::string* error) {
    m_data.clear();
    switch (m_type) {
        case platform::REG_SZ:
        case platform::REG_EXPAND_SZ:
            m_data.assign(text);
            m_data.push_back('\0');
            return 0;
        case platform::REG_MULTI_SZ: {
            // "a\0b" holds the strings a and b; each ends in a zero and an empty string ends
            // the list, so an empty string inside the list cannot be stored.
            std::string_view rest = text;
            while (!rest.empty()) {
                std::size_t cut = rest.find("\\0");
                std::string_view part = rest.substr(0, cut);
                if (part.empty()) {
                    *error = "REG_MULTI_SZ data cannot hold an empty string";
                    return 1;
                }
                m_data.append(part);
                m_data.push_back('\0');
                if (cut == std::string_view::npos) {
                    break;
                }
                rest.remove_prefix(cut + 2);
                if (rest.empty()) {
                    *error = "REG_MULTI_SZ data cannot hold an empty string";
                    return 1;
                }
            }
            m_data.push_back('\0');
            return 0;
        }
        case platform::REG_DWORD: {
            DWORD number = 0;
            if (!ParseNumber(text, &number)) {
                *error = "REG_DWORD data must be a number from 0 to 4294967295 (decimal or 0x hex)";
                return 1;
            }
            for (int i = 0; i < 4; ++i) {
                m_data.push_back(static_cast<char>((number >> (8 * i)) & 0xFF));
            }
            return 0;
        }
        default: {
            if (text.size() % 2 != 0) {
                *error = NameOfType(m_type) + " data must be an even number of hex digits";
                return 1;
            }
            for (std::size_t i = 0; i < text.size(); i += 2) {
                DWORD byte = 0;
                std::string pair = "0x" + std::string(text.substr(i, 2));
                if (!ParseNumber(pair, &byte) || pair.size() != 4) {
                    *error = NameOfType(m_type) + " data must be hex digits only";
                    return 1;
                }
                m_data.push_back(static_cast<char>(byte));
            }
            return 0;
        }
    }
}

int RegCommand::Parse(const std::vector<std::string>& args, RegCommand* command,
                      std::string* error) {
    RegCommand parsed;
    std::vector<std::string> words;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        // The word after /v, /t or /d is that option's argument, whatever it looks like.
        std::string previous = i > 0 ? Upper(args[i - 1]) : std::string();
        if (previous == "/V" || previous == "/T" || previous == "/D") {
            words.push_back(arg);
        } else if (arg == "--root") {
            if (i + 1 >= args.size() || args[i + 1].empty()) {
                *error = "--root needs a directory";
                return 1;
            }
            parsed.m_dataRoot = args[++i];
        } else if (arg.rfind("--root=", 0) == 0) {
            parsed.m_dataRoot = arg.substr(7);
            if (parsed.m_dataRoot.empty()) {
                *error = "--root needs a directory";
                return 1;
            }
        } else if (arg == "/?" || arg == "-h" || arg == "--help") {
            *command = RegCommand();
            return 0;
        } else {
            words.push_back(arg);
        }
    }
    if (words.empty()) {
        *error = "no command given";
        return 1;
    }
    std::string verb = Upper(words[0]);
    if (verb == "QUERY") {
        parsed.m_verb = Verb::Query;
    } else if (verb == "ADD") {
        parsed.m_verb = Verb::Add;
    } else if (verb == "DELETE") {
        parsed.m_verb = Verb::Delete;
    } else if (verb == "EXPORT") {
        parsed.m_verb = Verb::Export;
    } else if (verb == "IMPORT") {
        parsed.m_verb = Verb::Import;
    } else {
        *error = "unknown command \"" + words[0] + "\"";
        return 1;
    }
    std::string verbName = Lower(verb);

    // export and import take file names, which may begin with a slash: no options there.
    if (parsed.m_verb == Verb::Export || parsed.m_verb == Verb::Import) {
        std::size_t wanted = parsed.m_verb == Verb::Export ? 3 : 2;
        if (words.size() != wanted) {
            *error = words.size() < wanted
                         ? verbName + " needs " + (wanted == 3 ? "a KEY and a FILE" : "a FILE")
                         : "unexpected argument \"" + words[wanted] + "\"";
            return 1;
        }
        if (parsed.m_verb == Verb::Export) {
            if (RegKeyPath::Parse(words[1], &parsed.m_key, error) != 0) {
                return 1;
            }
            parsed.m_file = words[2];
        } else {
            parsed.m_file = words[1];
        }
        if (parsed.m_file.empty()) {
            *error = verbName + " needs a FILE";
            return 1;
        }
        *command = std::move(parsed);
        return 0;
    }

    bool haveKey = false;
    std::string typeText;
    std::string dataText;
    for (std::size_t i = 1; i < words.size(); ++i) {
        const std::string& word = words[i];
        if (word.empty() || word[0] != '/') {
            if (haveKey) {
                *error = "unexpected argument \"" + word + "\"";
                return 1;
            }
            if (RegKeyPath::Parse(word, &parsed.m_key, error) != 0) {
                return 1;
            }
            haveKey = true;
            continue;
        }
        std::string option = Upper(word);
        auto allowed = [&](std::initializer_list<Verb> verbs) {
            for (Verb v : verbs) {
                if (v == parsed.m_verb)
                    return true;
            }
            return false;
        };
        auto setTarget = [&](Target target) {
            if (parsed.m_target != Target::Key) {
                *error = "only one of /v, /ve and /va may be given";
                return false;
            }
            parsed.m_target = target;
            return true;
        };
        auto takeArgument = [&](std::string* into) {
            if (i + 1 >= words.size()) {
                *error = word + " needs an argument";
                return false;
            }
            *into = words[++i];
            return true;
        };
        // Each switch may be given once.
        auto once = [&](bool* given) {
            if (*given) {
                *error = Lower(word) + " given twice";
                return false;
            }
            *given = true;
            return true;
        };
        bool ok = true;
        if (option == "/V" && allowed({Verb::Query, Verb::Add, Verb::Delete})) {
            ok = setTarget(Target::Named) && takeArgument(&parsed.m_valueName);
        } else if (option == "/VE" && allowed({Verb::Query, Verb::Add, Verb::Delete})) {
            ok = setTarget(Target::Unnamed);
        } else if (option == "/VA" && allowed({Verb::Delete})) {
            ok = setTarget(Target::AllValues);
        } else if (option == "/S" && allowed({Verb::Query})) {
            ok = once(&parsed.m_recurse);
        } else if (option == "/F" && allowed({Verb::Add, Verb::Delete})) {
            ok = once(&parsed.m_force);
        } else if (option == "/T" && allowed({Verb::Add})) {
            ok = once(&parsed.m_hasType) && takeArgument(&typeText);
        } else if (option == "/D" && allowed({Verb::Add})) {
            ok = once(&parsed.m_hasData) && takeArgument(&dataText);
        } else {
            *error = word + " is not an option of " + verbName;
            return 1;
        }
        if (!ok) {
            return 1;
        }
    }
    if (!haveKey) {
        *error = verbName + " needs a KEY";
        return 1;
    }
    if (parsed.m_verb == Verb::Delete && parsed.m_target == Target::Key && parsed.m_key.IsRoot()) {
        *error = "a root key cannot be deleted";
        return 1;
    }
    if (parsed.m_verb == Verb::Add) {
        if (parsed.m_hasType) {
            static const DWORD kAddTypes[] = {platform::REG_SZ,       platform::REG_EXPAND_SZ,
                                              platform::REG_MULTI_SZ, platform::REG_DWORD,
                                              platform::REG_BINARY,   platform::REG_NONE};
            bool known = false;
            for (DWORD type : kAddTypes) {
                if (Upper(typeText) == NameOfType(type)) {
                    parsed.m_type = type;
                    known = true;
                }
            }
            if (!known) {
                *error = "unknown type \"" + typeText +
                         "\" (use REG_SZ, REG_EXPAND_SZ, REG_MULTI_SZ, REG_DWORD, REG_BINARY or "
                         "REG_NONE)";
                return 1;
            }
        }
        // A type or data without a value name is for the unnamed value, as in reg.
        if (parsed.m_target == Target::Key && (parsed.m_hasType || parsed.m_hasData)) {
            parsed.m_target = Target::Unnamed;
        }
        if (parsed.m_hasData || parsed.m_target != Target::Key) {
            if (!parsed.m_hasData && parsed.m_type == platform::REG_DWORD) {
                dataText = "0";
            }
            if (parsed.ParseData(dataText, error) != 0) {
                return 1;
            }
        }
    }
    *command = std::move(parsed);
    return 0;
}

std::string RegCommand::ValueLabel() const {
    return m_target == Target::Unnamed ? std::string("(Default)") : m_valueName;
}

int RegCommand::Execute(RegConsole& console) const {
    switch (m_verb) {
        case Verb::Help:
            console.out << kUsage;
            return kSuccess;
        case Verb::Query:
            return Query(console);
        case Verb::Add:
            return Add(console);
        case Verb::Delete:
            return Delete(console);
        case Verb::Export:
            return Export(console);
        case Verb::Import:
            return Import(console);
    }
    return kFailure;
}

int RegCommand::Query(RegConsole& console) const {
    RegKeyPath path;
    if (LONG rc = StoredPath(m_key, &path); rc != 0) {
        return ReportRegistryError(console, rc);
    }
    OpenedKey key;
    if (LONG rc = key.Open(path.Root(), path.SubKey(), platform::KEY_READ); rc != 0) {
        return ReportRegistryError(console, rc);
    }
    std::string text;
    LONG rc = 0;
    RegKeyPath tooDeep;
    if (m_target == Target::Key && !m_recurse) {
        KeyContents contents;
        rc = ReadKey(key.Get(), &contents);
        text += "\n" + path.Full() + "\n";
        for (const RegFileValue& value : contents.values) {
            text += QueryLine(value);
        }
        text += "\n";
        for (const std::string& name : contents.subkeys) {
            text += path.Child(name).Full() + "\n";
        }
        if (!contents.subkeys.empty()) {
            text += "\n";
        }
    } else {
        std::string wanted = m_target == Target::Named ? m_valueName : std::string();
        bool found = false;
        auto show = [&](const RegKeyPath& at, const KeyContents& contents) {
            if (m_target == Target::Key) {
                text += "\n" + at.Full() + "\n";
                for (const RegFileValue& value : contents.values) {
                    text += QueryLine(value);
                }
            } else if (const RegFileValue* value = FindValue(contents, wanted); value != nullptr) {
                found = true;
                text += "\n" + at.Full() + "\n" + QueryLine(*value);
            }
        };
        if (m_recurse) {
            rc = VisitTree(key.Get(), path, show, &tooDeep);
        } else {
            KeyContents contents;
            rc = ReadKey(key.Get(), &contents);
            show(path, contents);
        }
        if (rc == 0 && m_target != Target::Key && !found) {
            rc = static_cast<LONG>(platform::ERROR_FILE_NOT_FOUND);
        }
        text += "\n";
    }
    if (rc != 0) {
        return ReportWalkError(console, rc, tooDeep);
    }
    console.out << text;
    return kSuccess;
}

int RegCommand::Add(RegConsole& console) const {
    platform::Registry& registry = platform::Current().Reg();
    std::string name = m_target == Target::Named ? m_valueName : std::string();
    if (m_target != Target::Key) {
        OpenedKey existing;
        if (existing.Open(m_key.Root(), m_key.SubKey(), platform::KEY_READ) == 0) {
            DWORD size = 0;
            if (registry.QueryValueEx(existing.Get(), name, nullptr, nullptr, &size) == 0) {
                int status = ConfirmOrRefuse(
                    console, m_force, "Value " + ValueLabel() + " exists, overwrite(Yes/No)? ",
                    "Value " + ValueLabel() +
                        " exists; add /f to overwrite it (no terminal to ask on).");
                if (status != kSuccess) {
                    return status;
                }
            }
        }
    }
    OpenedKey key;
    if (LONG rc = key.Create(m_key.Root(), m_key.SubKey()); rc != 0) {
        return ReportRegistryError(console, rc);
    }
    if (m_target != Target::Key) {
        LONG rc = registry.SetValueEx(key.Get(), name, m_type,
                                      reinterpret_cast<const platform::BYTE*>(m_data.data()),
                                      static_cast<DWORD>(m_data.size()));
        if (rc != 0) {
            return ReportRegistryError(console, rc);
        }
    }
    console.out << kCompleted << "\n";
    return kSuccess;
}

int RegCommand::Delete(RegConsole& console) const {
    platform::Registry& registry = platform::Current().Reg();
    OpenedKey key;
    if (LONG rc =
            key.Open(m_key.Root(), m_key.SubKey(), platform::KEY_READ | platform::KEY_SET_VALUE);
        rc != 0) {
        return ReportRegistryError(console, rc);
    }
    std::string question;
    std::string refusal = "Deleting needs /f when there is no terminal to confirm it.";
    switch (m_target) {
        case Target::Key:
            question = "Permanently delete the registry key " + m_key.Full() + " (Yes/No)? ";
            break;
        case Target::AllValues:
            question = "Delete all values under the registry key " + m_key.Full() + " (Yes/No)? ";
            break;
        case Target::Named:
        case Target::Unnamed: {
            DWORD size = 0;
            std::string name = m_target == Target::Named ? m_valueName : std::string();
            if (LONG rc = registry.QueryValueEx(key.Get(), name, nullptr, nullptr, &size);
                rc != 0) {
                return ReportRegistryError(console, rc);
            }
            question = "Delete the registry value " + ValueLabel() + " (Yes/No)? ";
            break;
        }
    }
    if (int status = ConfirmOrRefuse(console, m_force, question, refusal); status != kSuccess) {
        return status;
    }
    LONG rc = 0;
    if (m_target == Target::Key) {
        key.Close();
        rc = core::RegistryKey::DeleteKeyTree(m_key.Root(), m_key.SubKey());
    } else if (m_target == Target::AllValues) {
        KeyContents contents;
        rc = ReadKey(key.Get(), &contents);
        for (std::size_t i = 0; rc == 0 && i < contents.values.size(); ++i) {
            rc = registry.DeleteValue(key.Get(), contents.values[i].name);
        }
    } else {
        rc = registry.DeleteValue(key.Get(), m_target == Target::Named ? m_valueName : "");
    }
    if (rc != 0) {
        return ReportRegistryError(console, rc);
    }
    console.out << kCompleted << "\n";
    return kSuccess;
}

int RegCommand::Export(RegConsole& console) const {
    RegKeyPath path;
    if (LONG rc = StoredPath(m_key, &path); rc != 0) {
        return ReportRegistryError(console, rc);
    }
    OpenedKey key;
    if (LONG rc = key.Open(path.Root(), path.SubKey(), platform::KEY_READ); rc != 0) {
        return ReportRegistryError(console, rc);
    }
    RegFile file;
    RegKeyPath tooDeep;
    LONG rc = VisitTree(
        key.Get(), path,
        [&](const RegKeyPath& at, const KeyContents& contents) {
            file.Sections().push_back(RegFileSection{at, false, contents.values, 0});
        },
        &tooDeep);
    if (rc != 0) {
        return ReportWalkError(console, rc, tooDeep);
    }
    std::string text;
    file.Format(&text);
    std::ofstream stream(m_file, std::ios::binary | std::ios::trunc);
    if (stream) {
        stream.write(text.data(), static_cast<std::streamsize>(text.size()));
        stream.close();
    }
    if (!stream) {
        console.err << "ERROR: cannot write " << m_file << ": " << std::strerror(errno) << "\n";
        return kFailure;
    }
    console.out << kCompleted << "\n";
    return kSuccess;
}

int RegCommand::Import(RegConsole& console) const {
    std::error_code ignored;
    if (std::filesystem::is_directory(m_file, ignored)) {
        console.err << "ERROR: cannot read " << m_file << ": it is a directory\n";
        return kFailure;
    }
    std::ifstream stream(m_file, std::ios::binary);
    std::ostringstream content;
    if (stream) {
        content << stream.rdbuf();
    }
    if (!stream || stream.bad()) {
        console.err << "ERROR: cannot read " << m_file << ": " << std::strerror(errno) << "\n";
        return kFailure;
    }
    RegFile file;
    std::string error;
    if (RegFile::Parse(content.str(), &file, &error) != 0) {
        console.err << "ERROR: " << error << "\n";
        return kFailure;
    }
    platform::Registry& registry = platform::Current().Reg();
    // The whole file is one change of the store: a failure or a kill half way leaves the tree
    // as it was before the import.
    platform::RegistryTransaction transaction;
    if (!transaction.Active()) {
        return ReportRegistryError(console, transaction.BeginResult(), "cannot import: ");
    }
    for (const RegFileSection& section : file.Sections()) {
        const RegKeyPath& path = section.key;
        LONG rc = 0;
        if (section.remove) {
            rc = core::RegistryKey::DeleteKeyTree(path.Root(), path.SubKey());
            if (rc == static_cast<LONG>(platform::ERROR_FILE_NOT_FOUND)) {
                rc = 0;  // already gone
            }
        } else {
            OpenedKey key;
            rc = key.Create(path.Root(), path.SubKey());
            for (std::size_t i = 0; rc == 0 && i < section.values.size(); ++i) {
                const RegFileValue& value = section.values[i];
                if (value.remove) {
                    rc = registry.DeleteValue(key.Get(), value.name);
                    if (rc == static_cast<LONG>(platform::ERROR_FILE_NOT_FOUND)) {
                        rc = 0;
                    }
                } else {
                    rc = registry.SetValueEx(
                        key.Get(), value.name, value.type,
                        reinterpret_cast<const platform::BYTE*>(value.data.data()),
                        static_cast<DWORD>(value.data.size()));
                }
            }
        }
        if (rc != 0) {
            return ReportRegistryError(
                console, rc,
                "line " + std::to_string(section.line) + ": cannot write [" + path.Full() + "]: ");
        }
    }
    if (LONG rc = transaction.Commit(); rc != 0) {
        return ReportRegistryError(console, rc, "cannot import: ");
    }
    console.out << kCompleted << "\n";
    return kSuccess;
}

int RunRegTool(const std::vector<std::string>& args, RegConsole& console) {
    RegCommand command;
    std::string error;
    if (RegCommand::Parse(args, &command, &error) != 0) {
        console.err << "ERROR: " << error << "\n\n" << RegCommand::Usage();
        return RegCommand::kUsageError;
    }
    if (command.GetVerb() == RegCommand::Verb::Help) {
        return command.Execute(console);
    }
    platform::SystemInfo info = platform::DetectSystemInfo();
    if (!command.DataRoot().empty()) {
        info.dataRoot = command.DataRoot();
    }
    // Reading a root that holds no store must not create one (a mistyped --root would
    // otherwise leave an empty store behind).
    bool readsOnly = command.GetVerb() == RegCommand::Verb::Query ||
                     command.GetVerb() == RegCommand::Verb::Export;
    std::error_code ignored;
    if (readsOnly &&
        !std::filesystem::exists(platform::RegistryDatabasePath(info.dataRoot), ignored)) {
        console.err << RegCommand::kNotFound << "\n";
        return RegCommand::kFailure;
    }
    platform::ScopedPlatform scope(platform::MakePosixPlatform(std::move(info)));
    return command.Execute(console);
}

}  // namespace qbrix::tools
