#include "core/ControlApp.h"

#include "core/DiagLog.h"
#include "core/Messages.h"
#include "core/NoAskDialog.h"
#include "core/RegistryKey.h"
#include "core/RegistryPaths.h"
#include "platform/Kernel.h"
#include "platform/Platform.h"
#include "platform/Security.h"

namespace qbrix::core {

namespace {
constexpr int kAdminTitleString = 89;
constexpr int kAdminMessageString = 74;
constexpr char kNtMutexName[] = "Global\\KORVEL_MUTEX_OBJECT";
constexpr char k9xMutexName[] = "KORVEL_MUTEX_OBJECT";
}  // namespace

StartCommand ParseStartCommand(std::string_view commandText) {
    if (commandText.empty()) {
        return StartCommand::Normal;
    }
    switch (commandText.front()) {
        case 'I':
        case 'i':
            return StartCommand::Install;
        case 'D':
        case 'd':
            return StartCommand::Deinstall;
        case 'T':
        case 't':
            return StartCommand::Temporary;
        default:
            return StartCommand::Normal;
    }
}

ControlApp::ControlApp(ProtectionLinks& links, std::string commandText)
    : m_links(links), m_commandText(std::move(commandText)) {}

bool ControlApp::InitInstance() {
    DiagLog("\n initinstance");
    m_links.InitFramework();

    switch (ParseStartCommand(m_commandText)) {
        case StartCommand::Install:
            DiagLog("\n install 1");
            m_links.InstallDriver(1);
            DiagLog("\n install 2");
            m_links.InstallLayeredProvider();
            DiagLog("\n install 3");
            return false;
        case StartCommand::Deinstall:
            // The provider goes before the driver.
            DiagLog("\n deinstall 1");
            m_links.RemoveLayeredProvider();
            DiagLog("\n deinstall 2");
            m_links.RemoveDriver(1);
            DiagLog("\n deinstall 3");
            return false;
        case StartCommand::Temporary:
            m_temporary = 1;
            break;
        case StartCommand::Normal:
            break;
    }

    DiagLog("\n Checking mutex");
    // The global name makes a copy in another session count too.
    m_hMutex = platform::CreateMutex(1, platform::IsNtPlatform() == 1 ? kNtMutexName
                                                                       : k9xMutexName);
    if (m_hMutex == nullptr) {
        DiagLog("\n Createmutex failed");
        return false;
    }
    if (platform::GetLastError() == platform::ERROR_ALREADY_EXISTS) {
        // The second copy ends silently.
        DiagLog("\n Createmutex already exists");
        return false;
    }

    DiagLog("\n checking admin");
    if (IsUserAdmin() == 0) {
        DiagLog(" failed");
        NoAskDialog(kAdminTitleString, kAdminMessageString, "AdminRequired");
        return false;
    }
    DiagLog(" OK");

    // Everything after this point reads and writes the configuration store; one that cannot be
    // used would otherwise show up as some later step's misleading error.
    if (LONG rc = RegistryKey().Open("", kGuiRootPath); rc != 0) {
        DiagLog("\n store failed");
        CurrentMessages().MessageBox("q-Brix cannot start: " + StoreFailureText(rc) + ".", "q-Brix",
                                     MB_OK | MB_ICONERROR);
        return false;
    }
    DiagLog("\n Everything seems to be OK");
    m_started = 1;

    if (m_temporary == 1) {
        if (m_links.InstallDriver(0) != 0) {
            m_links.ShowDriverErrors();
            return false;
        }
        if (m_links.InstallLayeredProvider() != 0) {
            return false;
        }
    }

    DiagLog("\n check driver");
    if (m_links.OpenDriverDevice(m_temporary == 0 ? 1 : 0) != 0) {
        m_links.ShowDriverErrors();
        return false;
    }
    DiagLog(" init");
    if (m_links.CheckDriverVersion() != 0) {
        m_links.ShowDriverErrors();
        return false;
    }
    DiagLog(" version");
    m_links.LoadZoneList();
    m_pMainWnd = m_links.CreateControlPanel();
    return true;
}

int ControlApp::ExitInstance() {
    m_links.ExitFramework();
    ShutdownProtection();
    return 0;
}

void ControlApp::ShutdownProtection() {
    // All traffic passes once the control program has gone.
    m_links.SetFilteringState(0);
    if (m_started == 1) {
        m_links.CloseDriverDevice();
        if (m_temporary == 1) {
            DiagLog("\n exit 1");
            m_links.RemoveLayeredProvider();
            DiagLog("\n exit 2");
            m_links.RemoveDriver(0);
            DiagLog("\n exit 3");
        }
        m_started = 0;
        m_links.ShowDriverErrors();
    }
    if (m_hMutex != nullptr) {
        platform::ReleaseMutex(m_hMutex);  // released, not closed: the handle stays
    }
    DiagLog("\n exit 4");
}

int IsUserAdmin() {
    using namespace qbrix::platform;
    if (IsNtPlatform() == 0) {
        return 1;
    }
    PSID administrators = nullptr;
    if (AllocateAndInitializeSid(SECURITY_NT_AUTHORITY, 2, SECURITY_BUILTIN_DOMAIN_RID,
                                 DOMAIN_ALIAS_RID_ADMINS, 0, 0, 0, 0, 0, 0,
                                 &administrators) == 0) {
        return 0;
    }
    int result = 0;
    // Looked up at run time rather than imported.
    if (HMODULE advapi = Current().Libs().Load("ADVAPI32.DLL"); advapi != nullptr) {
        auto check = reinterpret_cast<CheckTokenMembershipFn>(
            Current().Libs().GetProcAddress(advapi, "CheckTokenMembership"));
        BOOL isMember = 0;
        if (check != nullptr && check(nullptr, administrators, &isMember) != 0) {
            result = isMember;
        }
        Current().Libs().Free(advapi);
    }
    FreeSid(administrators);
    return result;
}

}  // namespace qbrix::core
