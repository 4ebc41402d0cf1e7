// q-brix-reg: key names, the query layout, add and delete with their questions, the .reg format
// in both directions, refusal of malformed files, and the export-delete-import round trip.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "RegCommand.h"
#include "RegFile.h"
#include "RegKeyPath.h"
#include "platform/Platform.h"
#include "support/TempPlatform.h"

namespace qbrix::tools {
namespace {

using namespace qbrix::platform;

struct Result {
    int status = -1;
    std::string out;
    std::string err;
};

std::string Dword(DWORD value) {
    return std::string(reinterpret_cast<const char*>(&value), 4);
}
std::string Text(const std::string& text) {
    return text + std::string(1, '\0');
}
// "HKLM\d\d..." with `levels` levels below the root.
std::string DeepPath(int levels, const std::string& root = "HKLM") {
    std::string path = root;
    for (int i = 0; i < levels; ++i) {
        path += "\\d";
    }
    return path;
}

class RegToolTest : public ::testing::Test {
  protected:
    // Parses and executes on the test platform, answering questions from `answers`.
    Result Run(const std::vector<std::string>& args, const std::string& answers = "",
               bool interactive = false) {
        std::istringstream in(answers);
        std::ostringstream out;
        std::ostringstream err;
        RegConsole console{in, out, err, interactive};
        RegCommand command;
        std::string error;
        Result result;
        if (RegCommand::Parse(args, &command, &error) != 0) {
            result.status = RegCommand::kUsageError;
            result.err = error;
        } else {
            result.status = command.Execute(console);
        }
        result.out += out.str();
        result.err += err.str();
        return result;
    }
    Result RunTool(const std::vector<std::string>& args) {
        std::istringstream in;
        std::ostringstream out;
        std::ostringstream err;
        RegConsole console{in, out, err, false};
        int status = RunRegTool(args, console);
        return Result{status, out.str(), err.str()};
    }

    void Set(HKEY root, const std::string& path, const std::string& name, DWORD type,
             const std::string& data) {
        HKEY key = nullptr;
        DWORD disposition = 0;
        ASSERT_EQ(0, Reg().CreateKeyEx(root, path, 0, KEY_ALL_ACCESS, &key, &disposition));
        ASSERT_EQ(0, Reg().SetValueEx(key, name, type, reinterpret_cast<const BYTE*>(data.data()),
                                      static_cast<DWORD>(data.size())));
        Reg().CloseKey(key);
    }
    void MakeKey(HKEY root, const std::string& path) {
        HKEY key = nullptr;
        DWORD disposition = 0;
        ASSERT_EQ(0, Reg().CreateKeyEx(root, path, 0, KEY_ALL_ACCESS, &key, &disposition));
        Reg().CloseKey(key);
    }
    // Type and bytes of a value; type 0xFFFFFFFF when it cannot be read.
    std::pair<DWORD, std::string> Get(HKEY root, const std::string& path, const std::string& name) {
        HKEY key = nullptr;
        std::pair<DWORD, std::string> result{0xFFFFFFFFu, ""};
        if (Reg().OpenKeyEx(root, path, KEY_READ, &key) != 0) {
            return result;
        }
        char data[4096];
        DWORD size = sizeof(data);
        if (Reg().QueryValueEx(key, name, &result.first, reinterpret_cast<BYTE*>(data), &size) ==
            0) {
            result.second.assign(data, size);
        } else {
            result.first = 0xFFFFFFFFu;
        }
        Reg().CloseKey(key);
        return result;
    }
    bool Exists(HKEY root, const std::string& path) {
        HKEY key = nullptr;
        if (Reg().OpenKeyEx(root, path, KEY_READ, &key) != 0) {
            return false;
        }
        Reg().CloseKey(key);
        return true;
    }
    // Every key (as "[path]") and value (as "name|type|bytes") of a tree, in enumeration
    // order, read through the registry interface alone.
    void Snapshot(HKEY key, const std::string& path, std::vector<std::string>* lines) {
        lines->push_back("[" + path + "]");
        for (DWORD i = 0;; ++i) {
            char name[512];
            char data[4096];
            DWORD nameSize = sizeof(name);
            DWORD dataSize = sizeof(data);
            DWORD type = 0;
            if (Reg().EnumValue(key, i, name, &nameSize, &type, reinterpret_cast<BYTE*>(data),
                                &dataSize) != 0) {
                break;
            }
            lines->push_back(std::string(name, nameSize) + "|" + std::to_string(type) + "|" +
                             std::string(data, dataSize));
        }
        for (DWORD i = 0;; ++i) {
            char name[300];
            DWORD nameSize = sizeof(name);
            if (Reg().EnumKeyEx(key, i, name, &nameSize) != 0) {
                break;
            }
            HKEY child = nullptr;
            ASSERT_EQ(0, Reg().OpenKeyEx(key, std::string(name, nameSize), KEY_READ, &child));
            Snapshot(child, path + "\\" + std::string(name, nameSize), lines);
            Reg().CloseKey(child);
        }
    }
    std::vector<std::string> Tree(HKEY root, const std::string& path) {
        std::vector<std::string> lines;
        HKEY key = nullptr;
        if (Reg().OpenKeyEx(root, path, KEY_READ, &key) == 0) {
            Snapshot(key, path, &lines);
            Reg().CloseKey(key);
        }
        return lines;
    }
    std::string WriteFile(const std::string& name, const std::string& content) {
        std::string path = m_files.File(name);
        std::ofstream(path, std::ios::binary) << content;
        return path;
    }

    Registry& Reg() { return m_platform.Get().Reg(); }

    test::TempPlatform m_platform;
    test::TempDirectory m_files;
};

TEST(RegKeyPathTest, RootNamesAndPathChecks) {
    RegKeyPath path;
    std::string error;
    ASSERT_EQ(0, RegKeyPath::Parse("hklm\\SOFTWARE\\x\\", &path, &error));
    EXPECT_EQ(HKEY_LOCAL_MACHINE, path.Root());
    EXPECT_EQ("HKEY_LOCAL_MACHINE\\SOFTWARE\\x", path.Full());
    ASSERT_EQ(0, RegKeyPath::Parse("HKEY_CURRENT_USER", &path, &error));
    EXPECT_EQ(HKEY_CURRENT_USER, path.Root());
    EXPECT_TRUE(path.IsRoot());
    ASSERT_EQ(0, RegKeyPath::Parse("HKCR\\.txt", &path, &error));
    EXPECT_EQ("HKEY_CLASSES_ROOT\\.txt", path.Full());
    ASSERT_EQ(0, RegKeyPath::Parse("Hku\\1000", &path, &error));
    EXPECT_EQ(HKEY_USERS, path.Root());

    for (const std::string& bad :
         std::vector<std::string>{"", "HKXX\\a", "\\SOFTWARE", "HKLM\\a\\\\b", "HKLM\\\\",
                                  "HKLM\\a\\\\", "HKLM\\" + std::string(256, 'k'), DeepPath(513)}) {
        EXPECT_EQ(1, RegKeyPath::Parse(bad, &path, &error)) << bad;
        EXPECT_FALSE(error.empty());
    }
}

TEST_F(RegToolTest, QueryShowsValuesThenSubkeyPathsInTheRegLayout) {
    const std::string key = "SOFTWARE\\korvel-soft\\Tool";
    Set(HKEY_LOCAL_MACHINE, key, "Text", REG_SZ, Text("a \"b\" \\c"));
    Set(HKEY_LOCAL_MACHINE, key, "", REG_SZ, Text("unnamed"));
    Set(HKEY_LOCAL_MACHINE, key, "Count", REG_DWORD, Dword(0xAB));
    Set(HKEY_LOCAL_MACHINE, key, "Bytes", REG_BINARY, std::string("\x00\x1f\xa0", 3));
    Set(HKEY_LOCAL_MACHINE, key, "List", REG_MULTI_SZ, std::string("one\0two\0\0", 9));
    Set(HKEY_LOCAL_MACHINE, key, "Path", REG_EXPAND_SZ, Text("%TEMP%\\x"));
    Set(HKEY_LOCAL_MACHINE, key, "Nothing", REG_NONE, "");
    MakeKey(HKEY_LOCAL_MACHINE, key + "\\Zeta");
    MakeKey(HKEY_LOCAL_MACHINE, key + "\\alpha\\deep");

    Result result = Run({"query", "hklm\\software\\KORVEL-SOFT\\tool"});
    EXPECT_EQ(0, result.status);
    EXPECT_EQ(
        "\nHKEY_LOCAL_MACHINE\\SOFTWARE\\korvel-soft\\Tool\n"
        "    Text    REG_SZ    a \"b\" \\c\n"
        "    (Default)    REG_SZ    unnamed\n"
        "    Count    REG_DWORD    0xab\n"
        "    Bytes    REG_BINARY    001FA0\n"
        "    List    REG_MULTI_SZ    one\\0two\n"
        "    Path    REG_EXPAND_SZ    %TEMP%\\x\n"
        "    Nothing    REG_NONE    \n"
        "\n"
        "HKEY_LOCAL_MACHINE\\SOFTWARE\\korvel-soft\\Tool\\alpha\n"
        "HKEY_LOCAL_MACHINE\\SOFTWARE\\korvel-soft\\Tool\\Zeta\n"
        "\n",
        result.out);

    result = Run({"query", "HKLM\\SOFTWARE\\korvel-soft\\Tool", "/v", "count"});
    EXPECT_EQ(
        "\nHKEY_LOCAL_MACHINE\\SOFTWARE\\korvel-soft\\Tool\n    Count    REG_DWORD    0xab\n\n",
        result.out);
    result = Run({"query", "HKLM\\SOFTWARE\\korvel-soft\\Tool", "/ve"});
    EXPECT_NE(std::string::npos, result.out.find("    (Default)    REG_SZ    unnamed\n"));
}

TEST_F(RegToolTest, QueryWithSRecursesDepthFirstAndFindsValuesInTheTree) {
    Set(HKEY_CURRENT_USER, "T", "a", REG_DWORD, Dword(1));
    Set(HKEY_CURRENT_USER, "T\\B\\C", "a", REG_DWORD, Dword(3));
    Set(HKEY_CURRENT_USER, "T\\A", "b", REG_SZ, Text("x"));
    Result result = Run({"query", "HKCU\\T", "/s"});
    EXPECT_EQ(0, result.status);
    EXPECT_EQ(
        "\nHKEY_CURRENT_USER\\T\n    a    REG_DWORD    0x1\n"
        "\nHKEY_CURRENT_USER\\T\\A\n    b    REG_SZ    x\n"
        "\nHKEY_CURRENT_USER\\T\\B\n"
        "\nHKEY_CURRENT_USER\\T\\B\\C\n    a    REG_DWORD    0x3\n\n",
        result.out);
    result = Run({"query", "HKCU\\T", "/s", "/v", "A"});
    EXPECT_EQ(
        "\nHKEY_CURRENT_USER\\T\n    a    REG_DWORD    0x1\n"
        "\nHKEY_CURRENT_USER\\T\\B\\C\n    a    REG_DWORD    0x3\n\n",
        result.out);
}

TEST_F(RegToolTest, MissingKeysAndValuesAreReportedWithStatusOne) {
    Set(HKEY_LOCAL_MACHINE, "K", "v", REG_DWORD, Dword(1));
    const std::string notFound = std::string(RegCommand::kNotFound) + "\n";
    for (const std::vector<std::string>& args :
         std::vector<std::vector<std::string>>{{"query", "HKLM\\Nope"},
                                               {"query", "HKLM\\K", "/v", "w"},
                                               {"query", "HKLM\\K", "/ve"},
                                               {"query", "HKLM\\K", "/s", "/v", "w"},
                                               {"delete", "HKLM\\Nope", "/f"},
                                               {"delete", "HKLM\\K", "/v", "w", "/f"},
                                               {"export", "HKLM\\Nope", m_files.File("x.reg")}}) {
        Result result = Run(args);
        EXPECT_EQ(1, result.status) << args[0] << " " << args[1];
        EXPECT_EQ(notFound, result.err);
        EXPECT_EQ("", result.out);
    }
    EXPECT_FALSE(test::FileExists(m_files.File("x.reg")));
}

TEST_F(RegToolTest, AddStoresEachTypesBytes) {
    const std::string k = "HKLM\\A";
    EXPECT_EQ(0, Run({"add", k, "/v", "s", "/d", "text"}).status);
    EXPECT_EQ(0, Run({"add", k, "/v", "d", "/t", "REG_DWORD", "/d", "0x1F"}).status);
    EXPECT_EQ(0, Run({"add", k, "/v", "n", "/t", "reg_dword", "/d", "4294967295"}).status);
    EXPECT_EQ(0, Run({"add", k, "/v", "z", "/t", "REG_DWORD"}).status);
    EXPECT_EQ(0, Run({"add", k, "/v", "b", "/t", "REG_BINARY", "/d", "00Ff10"}).status);
    EXPECT_EQ(0, Run({"add", k, "/v", "m", "/t", "REG_MULTI_SZ", "/d", "one\\0two"}).status);
    EXPECT_EQ(0, Run({"add", k, "/v", "e", "/t", "REG_EXPAND_SZ", "/d", "%X%"}).status);
    EXPECT_EQ(0, Run({"add", k, "/v", "none", "/t", "REG_NONE"}).status);
    EXPECT_EQ(0, Run({"add", k, "/d", "unnamed"}).status);
    EXPECT_EQ(0, Run({"add", k, "/v", "/?", "/d", "--root"}).status);  // option arguments
    Result created = Run({"add", "HKLM\\A\\Empty\\Key"});
    EXPECT_EQ(0, created.status);
    EXPECT_EQ(std::string(RegCommand::kCompleted) + "\n", created.out);

    EXPECT_EQ(std::make_pair(REG_SZ, Text("text")), Get(HKEY_LOCAL_MACHINE, "A", "s"));
    EXPECT_EQ(std::make_pair(REG_DWORD, Dword(31)), Get(HKEY_LOCAL_MACHINE, "A", "d"));
    EXPECT_EQ(std::make_pair(REG_DWORD, Dword(0xFFFFFFFF)), Get(HKEY_LOCAL_MACHINE, "A", "n"));
    EXPECT_EQ(std::make_pair(REG_DWORD, Dword(0)), Get(HKEY_LOCAL_MACHINE, "A", "z"));
    EXPECT_EQ(std::make_pair(REG_BINARY, std::string("\x00\xff\x10", 3)),
              Get(HKEY_LOCAL_MACHINE, "A", "b"));
    EXPECT_EQ(std::make_pair(REG_MULTI_SZ, std::string("one\0two\0\0", 9)),
              Get(HKEY_LOCAL_MACHINE, "A", "m"));
    EXPECT_EQ(std::make_pair(REG_EXPAND_SZ, Text("%X%")), Get(HKEY_LOCAL_MACHINE, "A", "e"));
    EXPECT_EQ(std::make_pair(REG_NONE, std::string()), Get(HKEY_LOCAL_MACHINE, "A", "none"));
    EXPECT_EQ(std::make_pair(REG_SZ, Text("unnamed")), Get(HKEY_LOCAL_MACHINE, "A", ""));
    EXPECT_EQ(std::make_pair(REG_SZ, Text("--root")), Get(HKEY_LOCAL_MACHINE, "A", "/?"));
    EXPECT_TRUE(Exists(HKEY_LOCAL_MACHINE, "A\\Empty\\Key"));
}

TEST_F(RegToolTest, OverwritingAsksOnATerminalAndRefusesWithoutOne) {
    Set(HKEY_LOCAL_MACHINE, "A", "v", REG_SZ, Text("old"));
    Result refused = Run({"add", "HKLM\\A", "/v", "v", "/d", "new"});
    EXPECT_EQ(1, refused.status);
    EXPECT_NE(std::string::npos, refused.err.find("/f"));
    EXPECT_EQ(Text("old"), Get(HKEY_LOCAL_MACHINE, "A", "v").second);

    Result canceled = Run({"add", "HKLM\\A", "/v", "v", "/d", "new"}, "what?\nno\n", true);
    EXPECT_EQ(1, canceled.status);
    EXPECT_EQ(
        "Value v exists, overwrite(Yes/No)? Value v exists, overwrite(Yes/No)? "
        "The operation was canceled by the user.\n",
        canceled.out);
    EXPECT_EQ(Text("old"), Get(HKEY_LOCAL_MACHINE, "A", "v").second);

    EXPECT_EQ(0, Run({"add", "HKLM\\A", "/v", "v", "/d", "new"}, "y\n", true).status);
    EXPECT_EQ(Text("new"), Get(HKEY_LOCAL_MACHINE, "A", "v").second);
    EXPECT_EQ(0, Run({"add", "HKLM\\A", "/v", "v", "/d", "newer", "/f"}).status);
    EXPECT_EQ(Text("newer"), Get(HKEY_LOCAL_MACHINE, "A", "v").second);
    // End of input on a terminal counts as No.
    EXPECT_EQ(1, Run({"add", "HKLM\\A", "/v", "v", "/d", "x"}, "", true).status);
}

TEST_F(RegToolTest, DeleteRemovesTreesValuesOrAllValues) {
    Set(HKEY_LOCAL_MACHINE, "D\\One\\Two\\Three", "v", REG_SZ, Text("x"));
    Set(HKEY_LOCAL_MACHINE, "D", "a", REG_SZ, Text("x"));
    Set(HKEY_LOCAL_MACHINE, "D", "b", REG_SZ, Text("x"));
    Set(HKEY_LOCAL_MACHINE, "D", "", REG_SZ, Text("x"));

    EXPECT_EQ(1, Run({"delete", "HKLM\\D\\One"}).status);  // no terminal, no /f
    EXPECT_TRUE(Exists(HKEY_LOCAL_MACHINE, "D\\One\\Two\\Three"));
    EXPECT_EQ(1, Run({"delete", "HKLM\\D\\One"}, "n\n", true).status);
    EXPECT_TRUE(Exists(HKEY_LOCAL_MACHINE, "D\\One"));

    EXPECT_EQ(0, Run({"delete", "HKLM\\D", "/ve", "/f"}).status);
    EXPECT_EQ(0xFFFFFFFFu, Get(HKEY_LOCAL_MACHINE, "D", "").first);
    EXPECT_EQ(0, Run({"delete", "HKLM\\D", "/v", "A"}, "Yes\n", true).status);
    EXPECT_EQ(0xFFFFFFFFu, Get(HKEY_LOCAL_MACHINE, "D", "a").first);
    EXPECT_EQ(REG_SZ, Get(HKEY_LOCAL_MACHINE, "D", "b").first);

    EXPECT_EQ(0, Run({"delete", "HKLM\\D", "/va", "/f"}).status);
    EXPECT_EQ(std::vector<std::string>(
                  {"[D]", "[D\\One]", "[D\\One\\Two]", "[D\\One\\Two\\Three]", "v|1|" + Text("x")}),
              Tree(HKEY_LOCAL_MACHINE, "D"));

    Result deleted = Run({"delete", "HKLM\\D\\One"}, "y\n", true);
    EXPECT_EQ(0, deleted.status);
    EXPECT_EQ(
        "Permanently delete the registry key HKEY_LOCAL_MACHINE\\D\\One (Yes/No)? "
        "The operation completed successfully.\n",
        deleted.out);
    EXPECT_FALSE(Exists(HKEY_LOCAL_MACHINE, "D\\One"));
    EXPECT_TRUE(Exists(HKEY_LOCAL_MACHINE, "D"));
}

TEST_F(RegToolTest, UsageErrorsGiveAMessageTheUsageAndStatusTwo) {
    const std::vector<std::vector<std::string>> cases = {
        {},
        {"frobnicate"},
        {"query"},
        {"query", "HKLM\\A", "HKLM\\B"},
        {"query", "HKLM\\A", "/t", "REG_SZ"},
        {"query", "HKXY\\A"},
        {"query", "HKLM\\a\\\\b"},
        {"query", "HKLM\\A", "/s", "/s"},
        {"add", "HKLM\\A", "/v"},
        {"add", "HKLM\\A", "/v", "x", "/ve"},
        {"add", "HKLM\\A", "/t", "REG_QWORD"},
        {"add", "HKLM\\A", "/t", "REG_DWORD", "/d", "12x"},
        {"add", "HKLM\\A", "/t", "REG_DWORD", "/d", "4294967296"},
        {"add", "HKLM\\A", "/t", "REG_DWORD", "/d", ""},
        {"add", "HKLM\\A", "/t", "REG_BINARY", "/d", "abc"},
        {"add", "HKLM\\A", "/t", "REG_BINARY", "/d", "zz"},
        {"add", "HKLM\\A", "/t", "REG_MULTI_SZ", "/d", "a\\0\\0b"},
        {"delete", "HKLM", "/f"},
        {"delete", "HKCU\\A", "/va", "/v", "x"},
        {"export", "HKLM\\A"},
        {"export", "HKLM\\A", "f.reg", "extra"},
        {"import"},
        {"--root"},
    };
    for (const std::vector<std::string>& args : cases) {
        Result result = RunTool(args);
        std::string shown =
            args.empty() ? "(none)" : args[0] + " " + (args.size() > 1 ? args[1] : "");
        EXPECT_EQ(2, result.status) << shown;
        EXPECT_EQ(0u, result.err.rfind("ERROR: ", 0)) << shown;
        EXPECT_NE(std::string::npos, result.err.find(RegCommand::Usage())) << shown;
    }
    EXPECT_FALSE(Exists(HKEY_LOCAL_MACHINE, "A"));
    Result help = RunTool({"/?"});
    EXPECT_EQ(0, help.status);
    EXPECT_EQ(RegCommand::Usage(), help.out);
}

TEST_F(RegToolTest, ReadingAnEmptyRootCreatesNoStore) {
    test::TempDirectory empty;
    Result result = RunTool({"--root", empty.Path(), "query", "HKLM\\SOFTWARE"});
    EXPECT_EQ(1, result.status);
    EXPECT_EQ(std::string(RegCommand::kNotFound) + "\n", result.err);
    EXPECT_TRUE(std::filesystem::is_empty(empty.Path()));
}

TEST(RegFileFormatTest, ValuesAreWrittenInTheRegFormat) {
    auto line = [](std::string name, DWORD type, std::string data) {
        return RegFile::FormatValue(RegFileValue{std::move(name), false, type, std::move(data), 0});
    };
    EXPECT_EQ("\"a \\\"b\\\" \\\\c\"=\"x \\\\ \\\"y\\\"\"",
              line("a \"b\" \\c", REG_SZ, Text("x \\ \"y\"")));
    EXPECT_EQ("@=\"\"", line("", REG_SZ, Text("")));
    EXPECT_EQ("\"n\"=dword:0000000a", line("n", REG_DWORD, Dword(10)));
    EXPECT_EQ("\"n\"=hex:0a,0b", line("n", REG_BINARY, "\x0a\x0b"));
    EXPECT_EQ("\"n\"=hex:", line("n", REG_BINARY, ""));
    EXPECT_EQ("\"e\"=hex(2):25,00", line("e", REG_EXPAND_SZ, std::string("%\0", 2)));
    EXPECT_EQ("\"m\"=hex(7):61,00,00", line("m", REG_MULTI_SZ, std::string("a\0\0", 3)));
    EXPECT_EQ("\"z\"=hex(0):", line("z", REG_NONE, ""));
    EXPECT_EQ("\"q\"=hex(b):01,00,00,00,00,00,00,00",
              line("q", REG_QWORD, std::string("\1\0\0\0\0\0\0\0", 8)));
    EXPECT_EQ("\"big\"=hex(12345):ff", line("big", 0x12345, "\xff"));
    // Text bytes that would not read back identically go out as hex(1).
    EXPECT_EQ("\"s\"=hex(1):61", line("s", REG_SZ, "a"));
    EXPECT_EQ("\"s\"=hex(1):61,00,62,00", line("s", REG_SZ, std::string("a\0b\0", 4)));
    EXPECT_EQ("\"s\"=hex(1):61,0a,00", line("s", REG_SZ, std::string("a\n\0", 3)));
    EXPECT_EQ("\"s\"=hex(1):ff,00", line("s", REG_SZ, std::string("\xff\0", 2)));
    EXPECT_EQ("\"s\"=\"\xc3\xa9\"", line("s", REG_SZ, Text("\xc3\xa9")));
    EXPECT_EQ("\"d\"=hex(4):01,02", line("d", REG_DWORD, "\x01\x02"));
    EXPECT_EQ("\"gone\"=-", RegFile::FormatValue(RegFileValue{"gone", true, 0, "", 0}));
}

TEST(RegFileFormatTest, LongHexIsWrappedWithinEightyColumns) {
    std::string data(97, '\x5a');
    std::string text = RegFile::FormatValue(RegFileValue{"Blob", false, REG_BINARY, data, 0});
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string l; std::getline(stream, l);) {
        if (!l.empty() && l.back() == '\r')
            l.pop_back();
        lines.push_back(l);
    }
    ASSERT_EQ(4u, lines.size());
    EXPECT_EQ(0u, lines[0].rfind("\"Blob\"=hex:5a,5a,", 0));
    for (std::size_t i = 0; i < lines.size(); ++i) {
        EXPECT_LE(lines[i].size(), 80u);
        EXPECT_EQ(i + 1 < lines.size(), lines[i].back() == '\\') << i;
        if (i > 0) {
            EXPECT_EQ(0u, lines[i].rfind("  5a,", 0));
        }
    }
    EXPECT_EQ(std::string::npos, text.find("\n\n"));
    EXPECT_NE(std::string::npos, text.find(",\\\r\n  "));

    RegFile parsed;
    std::string error;
    ASSERT_EQ(0, RegFile::Parse(
                     "Windows Registry Editor Version 5.00\r\n\r\n[HKLM\\X]\r\n" + text + "\r\n",
                     &parsed, &error))
        << error;
    EXPECT_EQ(data, parsed.Sections().at(0).values.at(0).data);
}

TEST(RegFileFormatTest, FileHasHeaderSectionsAndCrLfLineEnds) {
    RegFile file;
    RegKeyPath key;
    std::string error;
    ASSERT_EQ(0, RegKeyPath::Parse("HKLM\\A", &key, &error));
    file.Sections().push_back(RegFileSection{key, false, {{"", false, REG_SZ, Text("d"), 0}}, 0});
    file.Sections().push_back(RegFileSection{key.Child("B"), false, {}, 0});
    std::string text;
    file.Format(&text);
    EXPECT_EQ(
        "Windows Registry Editor Version 5.00\r\n\r\n"
        "[HKEY_LOCAL_MACHINE\\A]\r\n@=\"d\"\r\n\r\n"
        "[HKEY_LOCAL_MACHINE\\A\\B]\r\n\r\n",
        text);

    // A name that cannot be written as it is: the note, and every name escaped.
    file.Sections()[1].values.push_back({"two\nlines 100%", false, REG_SZ, Text("x"), 0});
    file.Sections()[1].key = key.Child("Caf\xe9");
    file.Format(&text);
    EXPECT_EQ(
        "Windows Registry Editor Version 5.00\r\n"
        "; q-brix-reg: names hold %XX escapes (XX a byte in hex)\r\n\r\n"
        "[HKEY_LOCAL_MACHINE\\A]\r\n@=\"d\"\r\n\r\n"
        "[HKEY_LOCAL_MACHINE\\A\\Caf%E9]\r\n\"two%0Alines 100%25\"=\"x\"\r\n\r\n",
        text);
}

TEST(RegFileParseTest, ReadsLfCrLfCommentsDeletionsAndUtf16) {
    const std::string body =
        "Windows Registry Editor Version 5.00\n\n; a comment\n[-HKEY_LOCAL_MACHINE\\Old]\n\n"
        "[HKLM\\New]\n  @=\"x\"\n\"n\" = DWORD:FFFFFFFF\n\"gone\"=-\n\"h\"=hex(7):61,00,\\\n"
        "   62,00,00\n\"e\"=hex:\n";
    std::string crlf;
    for (char c : body) {
        if (c == '\n')
            crlf += '\r';
        crlf += c;
    }
    std::string utf16 = "\xff\xfe";
    for (char c : body) {
        utf16 += c;
        utf16 += '\0';
    }
    for (const std::string& content : {body, crlf, "\xef\xbb\xbf" + body, utf16}) {
        RegFile file;
        std::string error;
        ASSERT_EQ(0, RegFile::Parse(content, &file, &error)) << error;
        ASSERT_EQ(2u, file.Sections().size());
        EXPECT_TRUE(file.Sections()[0].remove);
        EXPECT_EQ("HKEY_LOCAL_MACHINE\\Old", file.Sections()[0].key.Full());
        const std::vector<RegFileValue>& values = file.Sections()[1].values;
        ASSERT_EQ(5u, values.size());
        EXPECT_EQ(Text("x"), values[0].data);
        EXPECT_EQ("", values[0].name);
        EXPECT_EQ(Dword(0xFFFFFFFF), values[1].data);
        EXPECT_TRUE(values[2].remove);
        EXPECT_EQ(REG_MULTI_SZ, values[3].type);
        EXPECT_EQ(std::string("a\0b\0\0", 5), values[3].data);
        EXPECT_EQ(REG_BINARY, values[4].type);
        EXPECT_EQ("", values[4].data);
        EXPECT_EQ(12, values[4].line);
    }
}

TEST_F(RegToolTest, MalformedFilesAreRefusedWithTheirLineAndWriteNothing) {
    const std::string head =
        "Windows Registry Editor Version 5.00\r\n\r\n[HKLM\\Good]\r\n\"a\"=\"1\"\r\n";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"REGEDIT4\r\n\r\n[HKLM\\Good]\r\n", "line 1: the file does not begin with"},
        {"", "line 1: "},
        {"Windows Registry Editor Version 5.00\r\n\"a\"=\"1\"\r\n", "line 2: a value before"},
        {head + "[HKXX\\A]\r\n", "line 5: unknown root key"},
        {head + "[HKLM\\A\r\n", "line 5: the key line has no closing ]"},
        {head + "[-HKLM]\r\n", "line 5: a root key cannot be deleted"},
        {head + "\"b\"=\"a\\tb\"\r\n", "line 5: unknown escape"},
        {head + "\"b=\"x\"\r\n", "line 5: expected = after"},
        {head + "\"b\"=\"open\r\n", "line 5: the text has no closing quote"},
        {head + "\"b\"\r\n", "line 5: expected ="},
        {head + "\"b\"=dword:123456789\r\n", "line 5: dword: needs"},
        {head + "\"b\"=dword:12g4\r\n", "line 5: dword: needs"},
        {head + "\"b\"=hex(x):00\r\n", "line 5: hex(N): needs"},
        {head + "\"b\"=word:1\r\n", "line 5: unknown value data"},
        {head + "\"b\"=\"x\" y\r\n", "line 5: unexpected text after the closing quote"},
        {head + "\"b\"=hex:01,02,\\\r\n  03,zz\r\n", "line 6: invalid hex byte \"zz\""},
        {head + "\"b\"=hex:01 02\r\n", "line 5: expected , between"},
        {head + "\"b\"=hex:01,\\", "line 5: the value continues past the end"},
        {head + "[-HKLM\\Old]\r\n\"b\"=\"x\"\r\n", "line 6: a value in a section that deletes"},
        {head + "garbage\r\n", "line 5: unexpected text \"garbage\""},
        {head + "[" + DeepPath(513) + "]\r\n", "line 5: the key is more than 512 levels deep"},
        {head + std::string("\"a\0b\"=\"x\"\r\n", 12), "line 5: a NUL byte in the line"},
        {std::string(RegFile::kHeader) + "\r\n" + std::string(RegFile::kEscapeNote) +
             "\r\n[HKLM\\Good]\r\n\"a%4\"=\"1\"\r\n",
         "line 4: a % in the value name is not followed by two hex digits"},
        {std::string(RegFile::kHeader) + "\r\n" + std::string(RegFile::kEscapeNote) +
             "\r\n[HKLM\\Good%5Cx]\r\n",
         "line 3: a key name cannot hold a backslash"},
    };
    std::vector<std::string> before = Tree(HKEY_LOCAL_MACHINE, "");
    for (const auto& [content, message] : cases) {
        std::string path = WriteFile("bad.reg", content);
        Result result = Run({"import", path});
        EXPECT_EQ(1, result.status) << message;
        EXPECT_EQ(0u, result.err.rfind("ERROR: " + message, 0)) << result.err;
        EXPECT_FALSE(Exists(HKEY_LOCAL_MACHINE, "Good")) << message;
    }
    EXPECT_EQ(before, Tree(HKEY_LOCAL_MACHINE, ""));
    Result missing = Run({"import", m_files.File("absent.reg")});
    EXPECT_EQ(1, missing.status);
    EXPECT_EQ(0u, missing.err.rfind("ERROR: cannot read", 0));
    Result directory = Run({"import", m_files.Path()});
    EXPECT_EQ(1, directory.status);
    EXPECT_EQ(0u, directory.err.rfind("ERROR: cannot read", 0));
}

TEST_F(RegToolTest, ImportDeletesKeysAndValuesMarkedWithMinus) {
    Set(HKEY_LOCAL_MACHINE, "I\\Old\\Deep", "v", REG_SZ, Text("x"));
    Set(HKEY_LOCAL_MACHINE, "I\\Keep", "drop", REG_SZ, Text("x"));
    Set(HKEY_LOCAL_MACHINE, "I\\Keep", "stay", REG_SZ, Text("x"));
    std::string path =
        WriteFile("m.reg",
                  "Windows Registry Editor Version 5.00\n\n[-HKEY_LOCAL_MACHINE\\I\\Old]\n"
                  "[-HKEY_LOCAL_MACHINE\\I\\NeverWas]\n[HKEY_LOCAL_MACHINE\\I\\Keep]\n\"drop\"=-\n"
                  "\"absent\"=-\n");
    EXPECT_EQ(0, Run({"import", path}).status);
    EXPECT_EQ(std::vector<std::string>({"[I]", "[I\\Keep]", "stay|1|" + Text("x")}),
              Tree(HKEY_LOCAL_MACHINE, "I"));
}

TEST_F(RegToolTest, ExportDeleteImportRestoresTheTreeByteForByte) {
    const std::string root = "SOFTWARE\\korvel-soft\\q-Brix";
    Set(HKEY_LOCAL_MACHINE, root, "", REG_SZ, Text("default"));
    Set(HKEY_LOCAL_MACHINE, root, "Quote\"And\\Slash", REG_SZ, Text("C:\\dir\\\"x\""));
    Set(HKEY_LOCAL_MACHINE, root, "Count", REG_DWORD, Dword(0xDEADBEEF));
    Set(HKEY_LOCAL_MACHINE, root, "Blob", REG_BINARY, std::string(300, '\x81'));
    Set(HKEY_LOCAL_MACHINE, root, "Expand", REG_EXPAND_SZ, Text("%SystemRoot%"));
    Set(HKEY_LOCAL_MACHINE, root, "Multi", REG_MULTI_SZ, std::string("a\0bc\0\0", 6));
    Set(HKEY_LOCAL_MACHINE, root, "None", REG_NONE, "");
    Set(HKEY_LOCAL_MACHINE, root, "Odd", 0x7777, "\x01\x02");
    Set(HKEY_LOCAL_MACHINE, root, "Unterminated", REG_SZ, "abc");
    Set(HKEY_LOCAL_MACHINE, root, "InnerNul", REG_SZ, std::string("a\0b\0", 4));
    Set(HKEY_LOCAL_MACHINE, root, "Lines", REG_SZ, Text("one\r\ntwo"));
    Set(HKEY_LOCAL_MACHINE, root, "Latin1", REG_SZ, Text("caf\xe9"));
    Set(HKEY_LOCAL_MACHINE, root, "Utf8", REG_SZ, Text("caf\xc3\xa9"));
    Set(HKEY_LOCAL_MACHINE, root, "ShortDword", REG_DWORD, "\x01");
    Set(HKEY_LOCAL_MACHINE, root, "EmptyText", REG_SZ, "");
    Set(HKEY_LOCAL_MACHINE, root + "\\GUI\\3.1\\FWLog", "UseLog", REG_DWORD, Dword(1));
    Set(HKEY_LOCAL_MACHINE, root + "\\GUI\\3.1", "DefZone", REG_BINARY, std::string(704, '\0'));
    MakeKey(HKEY_LOCAL_MACHINE, root + "\\Empty Key");
    MakeKey(HKEY_LOCAL_MACHINE, root + "\\MixedCase\\lower");
    std::vector<std::string> before = Tree(HKEY_LOCAL_MACHINE, root);
    ASSERT_EQ(24u, before.size());

    const std::string file = m_files.File("tree.reg");
    EXPECT_EQ(0, Run({"export", "hklm\\software\\KORVEL-SOFT\\q-brix", file}).status);
    EXPECT_EQ(0, Run({"delete", "HKLM\\" + root, "/f"}).status);
    EXPECT_FALSE(Exists(HKEY_LOCAL_MACHINE, root));
    EXPECT_TRUE(Exists(HKEY_LOCAL_MACHINE, "SOFTWARE\\korvel-soft"));
    Result imported = Run({"import", file});
    EXPECT_EQ(0, imported.status) << imported.err;
    EXPECT_EQ(before, Tree(HKEY_LOCAL_MACHINE, root));

    // The export of the restored tree is the same file, and it is valid UTF-8 throughout.
    const std::string again = m_files.File("again.reg");
    EXPECT_EQ(0, Run({"export", "HKLM\\" + root, again}).status);
    std::string text = test::ReadFile(file);
    EXPECT_EQ(text, test::ReadFile(again));
    EXPECT_TRUE(IsValidUtf8(text));
    EXPECT_EQ(0u, text.rfind("Windows Registry Editor Version "
                             "5.00\r\n\r\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\korvel-soft\\q-Brix]\r\n",
                             0));
}

TEST_F(RegToolTest, NamesOfAnyBytesExportEscapedAndImportByteForByte) {
    // Names in the program's code page (bytes 80 to FF), with "%", line breaks and a NUL (a
    // store written by other means), next to UTF-8 names and text that is not UTF-8.
    std::string high;
    for (int byte = 0x80; byte <= 0xFF; ++byte) {
        high.push_back(static_cast<char>(byte));
    }
    const std::string root = "SOFTWARE\\Names";
    Set(HKEY_LOCAL_MACHINE, root + "\\" + high, high, REG_SZ, Text(high));
    Set(HKEY_LOCAL_MACHINE, root + "\\Caf\xe9 100%", "caf\xc3\xa9 %41", REG_SZ, Text("caf\xe9"));
    Set(HKEY_LOCAL_MACHINE, root + "\\Lines\r\n", std::string("nul\0inside", 10), REG_DWORD,
        Dword(7));
    std::vector<std::string> before = Tree(HKEY_LOCAL_MACHINE, root);
    ASSERT_EQ(7u, before.size());

    const std::string file = m_files.File("names.reg");
    Result exported = Run({"export", "HKLM\\" + root, file});
    ASSERT_EQ(0, exported.status) << exported.err;
    std::string text = test::ReadFile(file);
    EXPECT_TRUE(IsValidUtf8(text));
    EXPECT_NE(std::string::npos,
              text.find("\r\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Names\\Caf%E9 100%25]\r\n"
                        "\"caf\xc3\xa9 %2541\"=hex(1):63,61,66,e9,00\r\n"));
    EXPECT_NE(std::string::npos, text.find("\\Lines%0D%0A]\r\n\"nul%00inside\"=dword:00000007"));

    EXPECT_EQ(0, Run({"delete", "HKLM\\" + root, "/f"}).status);
    Result imported = Run({"import", file});
    EXPECT_EQ(0, imported.status) << imported.err;
    EXPECT_EQ(before, Tree(HKEY_LOCAL_MACHINE, root));
    const std::string again = m_files.File("again.reg");
    EXPECT_EQ(0, Run({"export", "HKLM\\" + root, again}).status);
    EXPECT_EQ(text, test::ReadFile(again));

    // Without the note a file's names are taken as written.
    std::string plain =
        WriteFile("plain.reg",
                  std::string(RegFile::kHeader) + "\r\n\r\n[HKLM\\Plain%41]\r\n\"v%00\"=\"x\"\r\n");
    EXPECT_EQ(0, Run({"import", plain}).status);
    EXPECT_EQ(REG_SZ, Get(HKEY_LOCAL_MACHINE, "Plain%41", "v%00").first);
}

TEST_F(RegToolTest, DeepStoresAreWalkedWithoutRecursion) {
    // Deeper than a call stack holds, as only a store written by other means can be.
    const int levels = 50000;
    std::string deep = DeepPath(levels, "Deep");
    MakeKey(HKEY_LOCAL_MACHINE, deep);
    ASSERT_TRUE(Exists(HKEY_LOCAL_MACHINE, deep));
    // The deepest path the tool takes is 512 levels; query and export stop at that key.
    const std::string limit = "ERROR: HKEY_LOCAL_MACHINE\\" + DeepPath(511, "Deep") +
                              " has sub-keys more than 512 levels deep";
    Result query = Run({"query", "HKLM\\Deep", "/s"});
    EXPECT_EQ(1, query.status);
    EXPECT_EQ(0u, query.err.rfind(limit, 0)) << query.err.substr(0, 200);
    EXPECT_EQ("", query.out);
    const std::string file = m_files.File("deep.reg");
    Result exported = Run({"export", "HKLM\\Deep", file});
    EXPECT_EQ(1, exported.status);
    EXPECT_EQ(0u, exported.err.rfind(limit, 0));
    EXPECT_FALSE(std::filesystem::exists(file));
    // Delete takes the whole tree, at any depth.
    Result deleted = Run({"delete", "HKLM\\Deep", "/f"});
    EXPECT_EQ(0, deleted.status) << deleted.err;
    EXPECT_FALSE(Exists(HKEY_LOCAL_MACHINE, "Deep"));
}

TEST_F(RegToolTest, CurrentUserTreesRoundTripPerUser) {
    Set(HKEY_CURRENT_USER, "SOFTWARE\\korvel-soft", "NoAskX", REG_DWORD, Dword(1));
    std::vector<std::string> before = Tree(HKEY_CURRENT_USER, "SOFTWARE");
    const std::string file = m_files.File("user.reg");
    EXPECT_EQ(0, Run({"export", "HKCU\\SOFTWARE", file}).status);
    EXPECT_NE(std::string::npos,
              test::ReadFile(file).find(
                  "[HKEY_CURRENT_USER\\SOFTWARE\\korvel-soft]\r\n\"NoAskX\"=dword:00000001\r\n"));
    EXPECT_EQ(0, Run({"delete", "HKCU\\SOFTWARE", "/f"}).status);
    EXPECT_TRUE(Tree(HKEY_CURRENT_USER, "SOFTWARE").empty());
    EXPECT_EQ(0, Run({"import", file}).status);
    EXPECT_EQ(before, Tree(HKEY_CURRENT_USER, "SOFTWARE"));
    EXPECT_TRUE(Exists(HKEY_USERS, "1000\\SOFTWARE\\korvel-soft"));
}

}  // namespace
}  // namespace qbrix::tools
