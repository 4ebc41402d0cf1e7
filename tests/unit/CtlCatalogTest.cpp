// q-brixctl catalog: the listing of the socket-provider catalog and its reset.
#include <gtest/gtest.h>

#include <sstream>

#include "CatalogCommand.h"
#include "provider_install/ProviderInstaller.h"
#include "support/TempPlatform.h"

namespace qbrix::tools {
namespace {

int Count(const std::string& text, const std::string& word) {
    int count = 0;
    for (std::size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1)) {
        ++count;
    }
    return count;
}

TEST(CtlCatalogTest, ListsEveryEntryAndResetsToTheBaseProviders) {
    test::TempPlatform platform;
    std::ostringstream out;
    std::ostringstream err;
    ASSERT_EQ(0, RunCatalogCommand({}, out, err));
    EXPECT_EQ(6, Count(out.str(), "Entry Type:                         Base Service Provider\n"));
    EXPECT_NE(std::string::npos, out.str().find("Catalog Entry ID:                   1001\n"));

    ASSERT_EQ(0, provider_install::ProviderInstaller().InstallLayeredProvider());
    out.str("");
    ASSERT_EQ(0, RunCatalogCommand({}, out, err));
    EXPECT_EQ(1, Count(out.str(), "Layered Service Provider"));
    EXPECT_EQ(2, Count(out.str(), "Layered Chain Entry"));
    EXPECT_NE(std::string::npos, out.str().find("Protocol Chain:                     1007 -> 1001\n"));

    out.str("");
    ASSERT_EQ(0, RunCatalogCommand({"reset"}, out, err));
    out.str("");
    ASSERT_EQ(0, RunCatalogCommand({}, out, err));
    EXPECT_EQ(0, Count(out.str(), "Layered"));
    EXPECT_EQ(6, Count(out.str(), "Base Service Provider"));

    EXPECT_EQ(2, RunCatalogCommand({"bogus"}, out, err));
    EXPECT_NE(std::string::npos, err.str().find("usage: q-brixctl"));
}

}  // namespace
}  // namespace qbrix::tools
