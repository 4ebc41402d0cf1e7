// libFuzzer target: rule exchange files of any content, imported and exported again.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "content/ContentRule.h"
#include "content/RuleXml.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::string path = "/tmp/qbrix-fuzz-rule-" + std::to_string(getpid()) + ".xml";
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) {
        return 0;
    }
    std::fwrite(data, 1, size, file);
    std::fclose(file);
    qbrix::content::ContentRule rule;
    if (qbrix::content::ImportContentRule(rule, path) == 0) {
        qbrix::content::ExportContentRule(rule, path);
        qbrix::content::ContentRule again;
        qbrix::content::ImportContentRule(again, path);
    }
    return 0;
}
