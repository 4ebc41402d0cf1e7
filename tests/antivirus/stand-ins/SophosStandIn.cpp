// A stand-in for the Sophos engine's in-process server: "DllGetClassObject" hands out a class
// factory for the engine class; the engine, its result enumerator and result items are objects
// reached through tables of plain functions that take the object first, at the positions the
// connector calls. "DllCanUnloadNow" says yes once no object is left.
#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "StandIn.h"

namespace {

using HRESULT = std::int32_t;
using ULONG = std::uint32_t;

struct GUID {
    std::uint32_t data1;
    std::uint16_t data2;
    std::uint16_t data3;
    std::uint8_t data4[8];
};

bool Same(const GUID* a, const GUID& b) {
    return a != nullptr && std::memcmp(a, &b, 16) == 0;
}

constexpr HRESULT S_OK = 0;
constexpr HRESULT S_FALSE = 1;
constexpr HRESULT E_NOTIMPL = static_cast<HRESULT>(0x80004001u);
constexpr HRESULT E_NOINTERFACE = static_cast<HRESULT>(0x80004002u);
constexpr HRESULT E_POINTER = static_cast<HRESULT>(0x80004003u);
constexpr HRESULT E_FAIL = static_cast<HRESULT>(0x80004005u);
constexpr HRESULT CLASS_E_NOAGGREGATION = static_cast<HRESULT>(0x80040110u);
constexpr HRESULT CLASS_E_CLASSNOTAVAILABLE = static_cast<HRESULT>(0x80040111u);
constexpr HRESULT kFileNotFound = static_cast<HRESULT>(0x80070002u);
constexpr HRESULT kEngineRestartNeeded = static_cast<HRESULT>(0xA0040223u);

constexpr GUID kUnknown = {0, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
constexpr GUID kClassFactory = {1, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
constexpr GUID kEngineClass = {
    0x91C4C540, 0x9FDD, 0x11D2, {0xAF, 0xAA, 0x00, 0x10, 0x5A, 0x30, 0x5A, 0x2B}};
constexpr GUID kMainInterface = {
    0xFF4E3EAA, 0x9380, 0x4A82, {0x82, 0x85, 0x2F, 0x17, 0xF2, 0xDA, 0x8C, 0xFA}};
constexpr GUID kInitInterface = {
    0x2D12C871, 0x07AC, 0x11D3, {0xBE, 0x8D, 0x00, 0x10, 0x5A, 0x30, 0x5D, 0x2F}};
constexpr GUID kEnumeratorInterface = {
    0x03A2FCC2, 0xA0A8, 0x11D2, {0xAF, 0xAC, 0x00, 0x10, 0x5A, 0x30, 0x5A, 0x2B}};

std::atomic<int> g_objects{0};

std::string Narrow(const char16_t* text) {
    std::string out;
    for (; text != nullptr && *text != 0; ++text) {
        out.push_back(*text < 0x80 ? static_cast<char>(*text) : '?');
    }
    return out;
}

std::u16string Wide(const std::string& text) {
    return std::u16string(text.begin(), text.end());
}

// Every object starts with its table, then its reference count.
struct Object {
    void* const* table;
    std::atomic<ULONG> references{1};
};

template <typename T>
ULONG AddRefObject(void* self) {
    return ++static_cast<T*>(self)->references;
}

template <typename T>
ULONG ReleaseObject(void* self) {
    ULONG left = --static_cast<T*>(self)->references;
    if (left == 0) {
        delete static_cast<T*>(self);
        --g_objects;
    }
    return left;
}

HRESULT NotImplemented(void*) {
    return E_NOTIMPL;
}

// Result item: 4 tells whether it is a threat, 5 gives the threat's name.
struct Item : Object {
    std::uint32_t threat = 0;
    std::u16string name;
    bool unterminated = false;
};

HRESULT ItemQuery(void* self, const GUID* id, void** out) {
    if (out == nullptr)
        return E_POINTER;
    if (!Same(id, kUnknown)) {
        *out = nullptr;
        return E_NOINTERFACE;
    }
    AddRefObject<Item>(self);
    *out = self;
    return S_OK;
}

HRESULT ItemIsThreat(void* self, std::uint32_t* flag) {
    *flag = static_cast<Item*>(self)->threat;
    return S_OK;
}

HRESULT ItemName(void* self, ULONG size, char16_t* buffer, ULONG* length) {
    auto* item = static_cast<Item*>(self);
    if (item->unterminated) {
        for (ULONG i = 0; i < size; ++i)
            buffer[i] = u'L';
    } else {
        std::size_t count = std::min<std::size_t>(item->name.size(), size - 1);
        std::copy(item->name.begin(), item->name.begin() + count, buffer);
        buffer[count] = 0;
    }
    if (length != nullptr)
        *length = static_cast<ULONG>(item->name.size());
    return S_OK;
}

void* const kItemTable[] = {
    reinterpret_cast<void*>(&ItemQuery),           reinterpret_cast<void*>(&AddRefObject<Item>),
    reinterpret_cast<void*>(&ReleaseObject<Item>), reinterpret_cast<void*>(&NotImplemented),
    reinterpret_cast<void*>(&ItemIsThreat),        reinterpret_cast<void*>(&ItemName)};

// Result enumerator: 3 fetches the next item, 5 restarts.
struct Enumerator : Object {
    std::vector<Item*> items;
    std::size_t next = 0;
    ~Enumerator() {
        for (Item* item : items)
            ReleaseObject<Item>(item);
    }
};

HRESULT EnumQuery(void* self, const GUID* id, void** out) {
    if (out == nullptr)
        return E_POINTER;
    if (!Same(id, kUnknown) && !Same(id, kEnumeratorInterface)) {
        *out = nullptr;
        return E_NOINTERFACE;
    }
    AddRefObject<Enumerator>(self);
    *out = self;
    return S_OK;
}

HRESULT EnumNext(void* self, ULONG count, void** item, ULONG* fetched) {
    auto* list = static_cast<Enumerator*>(self);
    if (count != 1 || item == nullptr)
        return E_FAIL;
    if (list->next >= list->items.size()) {
        *item = nullptr;
        if (fetched != nullptr)
            *fetched = 0;
        return S_FALSE;
    }
    Item* found = list->items[list->next++];
    AddRefObject<Item>(found);
    *item = found;
    if (fetched != nullptr)
        *fetched = 1;
    return S_OK;
}

HRESULT EnumReset(void* self) {
    static_cast<Enumerator*>(self)->next = 0;
    return S_OK;
}

void* const kEnumTable[] = {reinterpret_cast<void*>(&EnumQuery),
                            reinterpret_cast<void*>(&AddRefObject<Enumerator>),
                            reinterpret_cast<void*>(&ReleaseObject<Enumerator>),
                            reinterpret_cast<void*>(&EnumNext),
                            reinterpret_cast<void*>(&NotImplemented),
                            reinterpret_cast<void*>(&EnumReset),
                            reinterpret_cast<void*>(&NotImplemented)};

Item* MakeItem(std::uint32_t threat, const std::string& name, bool unterminated = false) {
    auto* item = new Item();
    item->table = kItemTable;
    item->threat = threat;
    item->name = Wide(name);
    item->unterminated = unterminated;
    ++g_objects;
    return item;
}

// The engine: 3 and 4 initialise, 7 terminates, 8 and 28 are called once around the
// configuration, 12 sets a configuration value, 14 sweeps a file.
struct Engine : Object {
    bool initialised = false;
};

HRESULT EngineQuery(void* self, const GUID* id, void** out) {
    if (out == nullptr)
        return E_POINTER;
    if (!Same(id, kUnknown) && !Same(id, kMainInterface) && !Same(id, kInitInterface)) {
        *out = nullptr;
        return E_NOINTERFACE;
    }
    AddRefObject<Engine>(self);
    *out = self;
    return S_OK;
}

HRESULT EngineInitialise(void* self) {
    standin::Log("Initialise");
    if (standin::InitialisationShouldFail())
        return E_FAIL;
    static_cast<Engine*>(self)->initialised = true;
    return S_OK;
}

HRESULT EngineInitialiseWithName(void* self, const char16_t* client) {
    standin::Log("InitialiseWithName %s", Narrow(client).c_str());
    if (standin::InitialisationShouldFail())
        return E_FAIL;
    static_cast<Engine*>(self)->initialised = true;
    return S_OK;
}

HRESULT EngineTerminate(void* self) {
    standin::Log("Terminate");
    static_cast<Engine*>(self)->initialised = false;
    return S_OK;
}

HRESULT EngineAfterInitialise(void*) {
    standin::Log("Operation8");
    return S_OK;
}

HRESULT EngineAfterConfiguration(void*) {
    standin::Log("Operation28");
    return S_OK;
}

HRESULT EngineSetConfigValue(void*, const char16_t* name, std::uint32_t type,
                             const char16_t* value) {
    standin::Log("SetConfigValue %s %u %s", Narrow(name).c_str(), type, Narrow(value).c_str());
    return S_OK;
}

HRESULT EngineSweepFile(void* self, const char16_t* path, const GUID* id, void** out) {
    std::string file = Narrow(path);
    standin::Log("SweepFile %s", file.c_str());
    if (out == nullptr)
        return E_POINTER;
    *out = nullptr;
    if (!static_cast<Engine*>(self)->initialised)
        return E_FAIL;
    if (!Same(id, kEnumeratorInterface))
        return E_NOINTERFACE;
    std::string content;
    if (!standin::ReadWholeFile(file.c_str(), content))
        return kFileNotFound;
    if (standin::HasMarker(content, "reload-always"))
        return kEngineRestartNeeded;
    if (standin::HasMarker(content, "reload-once")) {
        std::string seen = file + ".reloaded";
        if (std::FILE* mark = std::fopen(seen.c_str(), "r")) {
            std::fclose(mark);
        } else if (std::FILE* created = std::fopen(seen.c_str(), "w")) {
            std::fclose(created);
            return kEngineRestartNeeded;
        }
    }
    if (standin::HasMarker(content, "scan-error"))
        return E_FAIL;
    auto* list = new Enumerator();
    list->table = kEnumTable;
    ++g_objects;
    int found = standin::CountSignatures(content);
    bool unterminated = standin::HasMarker(content, "long-name");
    for (int i = 0; i < found; ++i) {
        list->items.push_back(MakeItem(1, standin::kThreatName, unterminated));
    }
    if (standin::HasMarker(content, "other-threat")) {
        list->items.push_back(MakeItem(1, standin::kOtherThreatName));
    }
    if (standin::HasMarker(content, "clean-last")) {
        list->items.push_back(MakeItem(0, "clean"));
    }
    *out = list;
    return S_OK;
}

void* const kEngineTable[29] = {
    reinterpret_cast<void*>(&EngineQuery),
    reinterpret_cast<void*>(&AddRefObject<Engine>),
    reinterpret_cast<void*>(&ReleaseObject<Engine>),
    reinterpret_cast<void*>(&EngineInitialise),
    reinterpret_cast<void*>(&EngineInitialiseWithName),
    reinterpret_cast<void*>(&NotImplemented),
    reinterpret_cast<void*>(&NotImplemented),
    reinterpret_cast<void*>(&EngineTerminate),
    reinterpret_cast<void*>(&EngineAfterInitialise),
    reinterpret_cast<void*>(&NotImplemented),
    reinterpret_cast<void*>(&NotImplemented),
    reinterpret_cast<void*>(&NotImplemented),
    reinterpret_cast<void*>(&EngineSetConfigValue),
    reinterpret_cast<void*>(&NotImplemented),
    reinterpret_cast<void*>(&EngineSweepFile),
    reinterpret_cast<void*>(&NotImplemented),
    reinterpret_cast<void*>(&NotImplemented),
    reinterpret_cast<void*>(&NotImplemented),
    reinterpret_cast<void*>(&NotImplemented),
    reinterpret_cast<void*>(&NotImplemented),
    reinterpret_cast<void*>(&NotImplemented),
    reinterpret_cast<void*>(&NotImplemented),
    reinterpret_cast<void*>(&NotImplemented),
    reinterpret_cast<void*>(&NotImplemented),
    reinterpret_cast<void*>(&NotImplemented),
    reinterpret_cast<void*>(&NotImplemented),
    reinterpret_cast<void*>(&NotImplemented),
    reinterpret_cast<void*>(&NotImplemented),
    reinterpret_cast<void*>(&EngineAfterConfiguration),
};

// The class factory lives as long as the library; its reference count is not kept.
ULONG FactoryAddRef(void*) {
    return 2;
}
ULONG FactoryRelease(void*) {
    return 1;
}

HRESULT FactoryQuery(void* self, const GUID* id, void** out) {
    if (out == nullptr)
        return E_POINTER;
    if (!Same(id, kUnknown) && !Same(id, kClassFactory)) {
        *out = nullptr;
        return E_NOINTERFACE;
    }
    *out = self;
    return S_OK;
}

HRESULT FactoryCreateInstance(void*, void* outer, const GUID* id, void** out) {
    if (out == nullptr)
        return E_POINTER;
    *out = nullptr;
    if (outer != nullptr)
        return CLASS_E_NOAGGREGATION;
    auto* engine = new Engine();
    engine->table = kEngineTable;
    ++g_objects;
    HRESULT status = EngineQuery(engine, id, out);
    ReleaseObject<Engine>(engine);
    standin::Log("CreateInstance %08X", static_cast<unsigned>(status));
    return status;
}

HRESULT FactoryLockServer(void*, int) {
    return S_OK;
}

void* const kFactoryTable[] = {
    reinterpret_cast<void*>(&FactoryQuery), reinterpret_cast<void*>(&FactoryAddRef),
    reinterpret_cast<void*>(&FactoryRelease), reinterpret_cast<void*>(&FactoryCreateInstance),
    reinterpret_cast<void*>(&FactoryLockServer)};

struct Factory {
    void* const* table;
};
Factory g_factory{kFactoryTable};

}  // namespace

STANDIN_EXPORT HRESULT DllGetClassObject(const GUID* classId, const GUID* interfaceId, void** out) {
    if (out == nullptr)
        return E_POINTER;
    *out = nullptr;
    if (!Same(classId, kEngineClass))
        return CLASS_E_CLASSNOTAVAILABLE;
    return FactoryQuery(&g_factory, interfaceId, out);
}

STANDIN_EXPORT HRESULT DllCanUnloadNow() {
    return g_objects.load() == 0 ? S_OK : S_FALSE;
}
