// The in-process component loader: class registrations in HKEY_CLASSES_ROOT, server libraries,
// class factories, freeing unused servers, and the text forms it converts.
#include <gtest/gtest.h>

#include <dlfcn.h>

#include <fstream>
#include <string>

#include "core/RegistryKey.h"
#include "platform/ComponentLoader.h"
#include "platform/Platform.h"
#include "platform/Utf16.h"
#include "support/TempPlatform.h"

namespace qbrix::platform {
namespace {

// The stand-in server of the antivirus tests: one class whose objects answer IUnknown.
constexpr GUID kClass = {
    0x91C4C540, 0x9FDD, 0x11D2, {0xAF, 0xAA, 0x00, 0x10, 0x5A, 0x30, 0x5A, 0x2B}};
constexpr GUID kOtherClass = {0x12345678, 0x1234, 0x1234, {1, 2, 3, 4, 5, 6, 7, 8}};

std::string ServerLibrary() {
    return std::string(QBRIX_STANDIN_DIR) + "/sophos/sophos-engine.so";
}

class ComponentLoaderTest : public ::testing::Test {
  protected:
    void Register(const GUID& id, const std::string& library) {
        core::RegistryKey key;
        ASSERT_EQ(0, key.OpenBelow(HKEY_CLASSES_ROOT, "CLSID\\" + Utf16ToUtf8(StringFromGUID(id)) +
                                                          "\\InprocServer32"));
        key.SetString("", library);
    }

    test::TempPlatform m_platform;
    test::TempDirectory m_files;
};

TEST(ComponentTextTest, ClassIdsHaveTheBracedUpperCaseForm) {
    EXPECT_EQ(u"{91C4C540-9FDD-11D2-AFAA-00105A305A2B}", StringFromGUID(kClass));
    char16_t buffer[39];
    EXPECT_EQ(0, StringFromGUID2(kClass, buffer, 38));
    EXPECT_EQ(39, StringFromGUID2(kClass, buffer, 39));
    EXPECT_EQ(std::u16string(u"{91C4C540-9FDD-11D2-AFAA-00105A305A2B}"), buffer);
}

TEST_F(ComponentLoaderTest, CreationNeedsAnInitialisedThreadAndAnInProcessRegistration) {
    Register(kClass, ServerLibrary());
    void* object = reinterpret_cast<void*>(1);
    EXPECT_EQ(CO_E_NOTINITIALIZED,
              CoCreateInstance(kClass, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, &object));
    EXPECT_EQ(nullptr, object);
    EXPECT_EQ(S_OK, CoInitialize(nullptr));
    EXPECT_EQ(S_FALSE, CoInitialize(nullptr));
    EXPECT_EQ(REGDB_E_CLASSNOTREG,
              CoCreateInstance(kClass, nullptr, CLSCTX_LOCAL_SERVER, IID_IUnknown, &object));
    EXPECT_EQ(REGDB_E_CLASSNOTREG,
              CoCreateInstance(kOtherClass, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, &object));

    ASSERT_EQ(S_OK, CoCreateInstance(kClass, nullptr, 7, IID_IUnknown, &object));
    ASSERT_NE(nullptr, object);
    void* again = nullptr;
    EXPECT_EQ(S_OK, QueryInterface(object, &IID_IUnknown, &again));
    EXPECT_EQ(object, again);
    EXPECT_EQ(E_NOINTERFACE, QueryInterface(object, &IID_IClassFactory, &again));
    EXPECT_EQ(1u, Release(object));
    EXPECT_EQ(0u, Release(object));
    CoUninitialize();
    CoUninitialize();
    EXPECT_FALSE(Current().Components().IsInitialized());
}

TEST_F(ComponentLoaderTest, BrokenRegistrationsGiveTheComponentErrors) {
    CoInitialize(nullptr);
    std::string text = m_files.File("not-a-library.so");
    std::ofstream(text) << "text";
    void* object = nullptr;
    Register(kClass, text);
    EXPECT_EQ(CO_E_DLLNOTFOUND, CoCreateInstance(kClass, nullptr, 1, IID_IUnknown, &object));
    // A library that serves another class.
    Register(kOtherClass, ServerLibrary());
    EXPECT_EQ(CLASS_E_CLASSNOTAVAILABLE,
              CoCreateInstance(kOtherClass, nullptr, 1, IID_IUnknown, &object));
    // A shared library that is no server.
    Register(kOtherClass, "libm.so.6");
    EXPECT_EQ(CO_E_ERRORINDLL, CoCreateInstance(kOtherClass, nullptr, 1, IID_IUnknown, &object));
    EXPECT_EQ(nullptr, object);
    CoUninitialize();
}

TEST_F(ComponentLoaderTest, UnusedServersAreFreedOnlyWhenTheyAgree) {
    Register(kClass, ServerLibrary());
    CoInitialize(nullptr);
    void* object = nullptr;
    ASSERT_EQ(S_OK, CoCreateInstance(kClass, nullptr, 1, IID_IUnknown, &object));
    HMODULE loaded = CoLoadLibrary(Utf8ToUtf16(ServerLibrary()).c_str(), 1);
    ASSERT_NE(nullptr, loaded);
    HMODULE kept = CoLoadLibrary(Utf8ToUtf16(ServerLibrary()).c_str(), 0);
    ASSERT_NE(nullptr, kept);
    EXPECT_EQ(3u, Current().Components().LoadedServerCount());
    CoFreeUnusedLibraries();  // an object is still alive
    EXPECT_EQ(3u, Current().Components().LoadedServerCount());
    Release(object);
    CoFreeUnusedLibraries();
    EXPECT_EQ(1u, Current().Components().LoadedServerCount());
    EXPECT_NE(nullptr, Current().Libs().GetProcAddress(kept, "DllGetClassObject"));
    EXPECT_EQ(nullptr, CoLoadLibrary(u"/no/such/library.so", 1));
    CoUninitialize();
}

TEST_F(ComponentLoaderTest, HeldLibraryStaysMappedAfterItsLastFree) {
    HMODULE module = Current().Libs().Load(ServerLibrary());
    ASSERT_NE(nullptr, module);
    void* entry = Current().Libs().GetProcAddress(module, "DllCanUnloadNow");
    ASSERT_NE(nullptr, entry);
    std::shared_ptr<void> hold = Libraries::HoldLibraryOf(entry);
    ASSERT_NE(nullptr, hold);
    Current().Libs().Free(module);
    EXPECT_EQ(S_OK, reinterpret_cast<DllCanUnloadNowFn>(entry)());
    hold.reset();
    EXPECT_EQ(nullptr, dlopen(ServerLibrary().c_str(), RTLD_NOW | RTLD_NOLOAD));
    EXPECT_EQ(nullptr, Libraries::HoldLibraryOf(nullptr));
}

}  // namespace
}  // namespace qbrix::platform
