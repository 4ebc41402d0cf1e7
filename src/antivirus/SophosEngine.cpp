#include "antivirus/SophosEngine.h"

#include <algorithm>
#include <cstring>

#include "platform/Platform.h"
#include "platform/Utf16.h"

namespace qbrix::antivirus {

namespace {

using platform::CallInterface;
using platform::FAILED;
using platform::HRESULT;
using platform::ULONG;

constexpr platform::DWORD kContextMask = platform::CLSCTX_INPROC_SERVER |
                                         platform::CLSCTX_INPROC_HANDLER |
                                         platform::CLSCTX_LOCAL_SERVER;
constexpr platform::DWORD kServerPathBytes = 260;

struct ConfigValue {
    const char16_t* name;
    std::uint32_t type;
    const char16_t* value;
};
constexpr ConfigValue kConfiguration[] = {
    {u"GrpArchiveUnpack", 9, u"1"},
    {u"UueDecompression", 3, u"1"},
    {u"GrpInternet", 9, u"1"},
    {u"IdeDir", 10, u"."},
};

HRESULT Sweep(void* engine, const char* path, void** enumerator) {
    std::u16string widePath = platform::Utf8ToUtf16(path != nullptr ? path : "");
    return CallInterface<HRESULT>(engine, sophos::kSweepFile,
                                  static_cast<const char16_t*>(widePath.c_str()),
                                  &kSophosResultEnumerator, enumerator);
}

// The server library named by the class registration, or empty when it cannot be read.
std::string ServerLibraryPath() {
    char16_t classText[40] = {};
    platform::StringFromGUID2(kSophosEngineClass, classText, 40);
    std::string keyName = "CLSID\\" + platform::Utf16ToUtf8(classText) + "\\InprocServer32";
    platform::Registry& registry = platform::Current().Reg();
    platform::HKEY key = nullptr;
    if (registry.OpenKeyEx(platform::HKEY_CLASSES_ROOT, keyName, platform::KEY_QUERY_VALUE, &key) !=
        0) {
        return std::string();
    }
    char data[kServerPathBytes + 1] = {};
    platform::DWORD size = kServerPathBytes;
    platform::DWORD type = 0;
    platform::LONG status =
        registry.QueryValueEx(key, "", &type, reinterpret_cast<platform::BYTE*>(data), &size);
    registry.CloseKey(key);
    if (status != 0) {
        return std::string();
    }
    return std::string(data, strnlen(data, std::min(size, kServerPathBytes)));
}

}  // namespace

void* CreateSophosEngine(const char16_t* clientName) {
    void* engine = nullptr;
    if (FAILED(platform::CoCreateInstance(kSophosEngineClass, nullptr, kContextMask,
                                          kSophosMainInterface, &engine)) ||
        engine == nullptr) {
        return nullptr;
    }
    if (FAILED(CallInterface<HRESULT>(engine, sophos::kInitialiseWithName, clientName))) {
        platform::Release(engine);
        return nullptr;
    }
    return engine;
}

HRESULT ReloadSophosEngine(void** engine, const platform::GUID& interfaceId,
                           const char16_t* clientName) {
    platform::CoFreeUnusedLibraries();
    std::string path = ServerLibraryPath();
    if (path.empty()) {
        return 1;
    }
    platform::HMODULE module = platform::CoLoadLibrary(platform::Utf8ToUtf16(path).c_str(), 1);
    if (module == nullptr) {
        return 1;
    }
    auto getClassObject = reinterpret_cast<platform::DllGetClassObjectFn>(
        platform::Current().Libs().GetProcAddress(module, "DllGetClassObject"));
    if (getClassObject == nullptr) {
        return 1;
    }
    void* factory = nullptr;
    HRESULT status = getClassObject(&kSophosEngineClass, &platform::IID_IClassFactory, &factory);
    if (FAILED(status) || factory == nullptr) {
        return FAILED(status) ? status : platform::E_POINTER;
    }
    void* instance = nullptr;
    status = CallInterface<HRESULT>(factory, platform::kClassFactoryCreateInstance,
                                    static_cast<void*>(nullptr), &kSophosInitInterface, &instance);
    platform::Release(factory);
    if (FAILED(status) || instance == nullptr) {
        return FAILED(status) ? status : platform::E_POINTER;
    }
    status = clientName == nullptr
                 ? CallInterface<HRESULT>(instance, sophos::kInitialise)
                 : CallInterface<HRESULT>(instance, sophos::kInitialiseWithName, clientName);
    if (!FAILED(status)) {
        status = platform::QueryInterface(instance, &interfaceId, engine);
    }
    platform::Release(instance);
    return status;
}

std::int32_t CollectSweepResults(void* enumerator, std::string& message, std::int32_t& infected) {
    if (enumerator == nullptr || FAILED(CallInterface<HRESULT>(enumerator, sophos::kEnumReset))) {
        return 0;
    }
    bool lastCallSucceeded = true;
    for (;;) {
        void* item = nullptr;
        ULONG fetched = 0;
        if (CallInterface<HRESULT>(enumerator, sophos::kEnumNext, ULONG{1}, &item, &fetched) !=
                platform::S_OK ||
            item == nullptr) {
            break;
        }
        std::uint32_t flag = 0;
        if (FAILED(CallInterface<HRESULT>(item, sophos::kItemIsThreat, &flag))) {
            platform::Release(item);
            lastCallSucceeded = false;
            break;
        }
        infected = 1;
        if (flag == 0) {
            infected = 0;
        } else {
            char16_t name[kSophosThreatNameChars] = {};
            CallInterface<HRESULT>(item, sophos::kItemThreatName, ULONG{kSophosThreatNameChars},
                                   static_cast<char16_t*>(name), static_cast<ULONG*>(nullptr));
            // An engine may fill all 80 characters without a terminator.
            std::size_t length = std::find(name, name + kSophosThreatNameChars, u'\0') - name;
            message += platform::Utf16ToUtf8(std::u16string_view(name, length));
        }
        platform::Release(item);
    }
    return lastCallSucceeded ? 1 : 0;
}

std::int32_t SophosEngine::Load() {
    if (m_engine != nullptr) {
        return 0;
    }
    platform::CoInitialize(nullptr);
    m_engine = CreateSophosEngine(m_clientName);
    if (m_engine == nullptr) {
        return 1;
    }
    // The statuses of these calls are not looked at: a value the engine refuses keeps its
    // default.
    CallInterface<HRESULT>(m_engine, sophos::kAfterInitialise);
    for (const ConfigValue& option : kConfiguration) {
        CallInterface<HRESULT>(m_engine, sophos::kSetConfigValue, option.name, option.type,
                               option.value);
    }
    CallInterface<HRESULT>(m_engine, sophos::kAfterConfiguration);
    return 0;
}

std::int32_t SophosEngine::ScanFile(const char* path, std::string& message,
                                    std::int32_t& infected) {
    infected = 0;
    if (Load() != 0) {
        message += kErrorLoadingSophos;
        return 1;
    }
    void* enumerator = nullptr;
    HRESULT status = Sweep(m_engine, path, &enumerator);
    bool swept = true;
    if (status == kSophosReloadStatus) {
        if (enumerator != nullptr) {
            platform::Release(enumerator);
            enumerator = nullptr;
        }
        CallInterface<HRESULT>(m_engine, sophos::kTerminate);
        platform::Release(m_engine);
        m_engine = nullptr;
        HRESULT reload = ReloadSophosEngine(&m_engine, kSophosMainInterface, m_clientName);
        // A registry or library failure returns 1 with no engine: nothing to sweep with.
        if (FAILED(reload) || m_engine == nullptr) {
            swept = false;
        } else {
            status = Sweep(m_engine, path, &enumerator);
        }
    }
    std::int32_t result = 0;
    if (swept && !FAILED(status)) {
        CollectSweepResults(enumerator, message, infected);
        result = infected;
    }
    if (enumerator != nullptr) {
        platform::Release(enumerator);
    }
    return result;
}

SophosEngine::~SophosEngine() {
    // Without a platform the server library is gone with its loader: nothing left to call.
    if (!platform::IsInstalled()) {
        return;
    }
    if (m_engine != nullptr) {
        CallInterface<HRESULT>(m_engine, sophos::kTerminate);
        platform::Release(m_engine);
    }
    m_engine = nullptr;
    platform::CoUninitialize();
}

}  // namespace qbrix::antivirus
