#include "ZoneCommand.h"

#include <unistd.h>

#include <cstdio>
#include <fstream>

#include "core/Messages.h"
#include "core/RegistryKey.h"
#include "platform/Registry.h"
#include "platform/Text.h"
#include "policy/LanDiscovery.h"
#include "policy/ZoneExchange.h"
#include "policy/ZoneRules.h"
#include "policy/ZoneStore.h"

namespace qbrix::tools {

namespace {

using policy::g_zones;
using policy::ZoneRecord;

// Questions go to the terminal when there is one; without one they are answered No, so that
// an unattended first run never opens the wizard.
class CtlMessages : public core::Messages {
  public:
    explicit CtlMessages(std::ostream& err) : m_err(err) {}
    int MessageBox(std::string_view text, std::string_view caption, unsigned style) override {
        if (::isatty(STDIN_FILENO)) {
            return m_console.MessageBox(text, caption, style);
        }
        m_err << caption << ": " << text << "\n";
        unsigned buttons = style & 0xF;
        bool question = buttons == core::MB_YESNO || buttons == core::MB_YESNOCANCEL;
        return question ? core::IDNO : core::IDOK;
    }
    core::NoAskAnswer AskNoAsk(std::string_view title, std::string_view message) override {
        return m_console.AskNoAsk(title, message);
    }
    void Beep(unsigned) override {}

  private:
    std::ostream& m_err;
    core::ConsoleMessages m_console;
};

int Usage(std::ostream& err, const std::string& problem) {
    err << "q-brixctl: " << problem << "\n"
        << "usage: q-brixctl [--root DIR] zone list | dump NAME | export NAME FILE |\n"
        << "       import FILE [--overwrite] | delete NAME | lan\n";
    return 2;
}

int Failed(std::ostream& err, const std::string& problem) {
    err << "q-brixctl: " << problem << "\n";
    return 1;
}

std::string Dotted(std::uint32_t hostOrder) {
    char text[16];
    std::snprintf(text, sizeof text, "%u.%u.%u.%u", hostOrder >> 24 & 0xFF, hostOrder >> 16 & 0xFF,
                  hostOrder >> 8 & 0xFF, hostOrder & 0xFF);
    return text;
}

int StoreFailed(std::ostream& err, const std::string& what, platform::LONG rc) {
    return Failed(err, what + ": " + core::StoreFailureText(rc));
}

// The zone list as the program has it; a first run on an empty store fills it without asking.
int Load(std::ostream& err) {
    platform::LONG rc = policy::LoadZones(policy::FirstRun::NoWizard);
    return rc == 0 ? 0 : StoreFailed(err, "cannot read the zone list", rc);
}

// Load, change and save as one change of the store, so that tools running at the same time
// never lose each other's changes. `change` returns 0 to save, else the exit status.
template <typename Change>
int Modify(std::ostream& err, Change change) {
    platform::RegistryTransaction transaction;
    if (!transaction.Active()) {
        return StoreFailed(err, "cannot change the zone list", transaction.BeginResult());
    }
    if (int status = Load(err); status != 0) {
        return status;
    }
    if (int status = change(); status != 0) {
        return status;
    }
    platform::LONG rc = policy::SaveZones();
    if (rc == 0) {
        rc = transaction.Commit();
    }
    return rc == 0 ? 0 : StoreFailed(err, "cannot save the zone list", rc);
}

int List(std::ostream& out, std::ostream& err) {
    if (int status = Load(err); status != 0) {
        return status;
    }
    for (std::size_t i = 0; i < g_zones.Size(); ++i) {
        out << policy::ZoneName(g_zones.At(i)) << "\n";
    }
    return 0;
}

int Dump(const std::string& name, std::ostream& out, std::ostream& err) {
    if (int status = Load(err); status != 0) {
        return status;
    }
    const ZoneRecord* zone = policy::FindZone(name);
    if (zone == nullptr) {
        return Failed(err, "no zone named '" + name + "'");
    }
    out.write(reinterpret_cast<const char*>(zone), sizeof(ZoneRecord));
    return 0;
}

int Export(const std::string& name, const std::string& file, std::ostream& err) {
    if (int status = Load(err); status != 0) {
        return status;
    }
    const ZoneRecord* zone = policy::FindZone(name);
    if (zone == nullptr) {
        return Failed(err, "no zone named '" + name + "'");
    }
    if (!std::ofstream(file, std::ios::app)) {
        return Failed(err, "cannot write '" + file + "'");
    }
    policy::ExportZone(*zone, file);
    return 0;
}

int Import(const std::string& file, bool overwrite, std::ostream& err) {
    ZoneRecord zone = policy::EmptyZone();
    if (std::string why; policy::ImportZone(zone, file, &why) != 0) {
        return Failed(err, "'" + file + "' holds no zone: " + why);
    }
    return Modify(err, [&] {
        for (std::size_t i = 0; i < g_zones.Size(); ++i) {
            if (platform::EqualsIgnoreCase(policy::ZoneName(g_zones.At(i)),
                                           policy::ZoneName(zone))) {
                if (!overwrite) {
                    return Failed(err, "a zone named '" +
                                           std::string(policy::ZoneName(g_zones.At(i))) +
                                           "' exists; use --overwrite to replace it");
                }
                g_zones.Remove(&g_zones.At(i));
                break;
            }
        }
        g_zones.Append(zone);
        return 0;
    });
}

int Delete(const std::string& name, std::ostream& err) {
    return Modify(err, [&] {
        ZoneRecord* zone = policy::FindZone(name);
        if (zone == nullptr) {
            return Failed(err, "no zone named '" + name + "'");
        }
        g_zones.Remove(zone);
        return 0;
    });
}

int Lan(std::ostream& out, std::ostream& err) {
    ZoneRecord zone = policy::EmptyZone();
    if (policy::DetectLan(zone) != 0) {
        return Failed(err, "No Lan found");
    }
    for (const policy::ZoneRule& rule : zone.rules) {
        if (!policy::IsEmptySlot(rule)) {
            out << policy::RuleName(rule) << "\t" << Dotted(rule.address) << "\t"
                << Dotted(rule.mask) << "\n";
        }
    }
    return 0;
}

}  // namespace

int RunZoneCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    if (args.empty()) {
        return Usage(err, "zone needs a subcommand");
    }
    CtlMessages messages(err);
    core::ScopedMessages installed(messages);
    const std::string& command = args[0];
    std::size_t count = args.size() - 1;
    if (command == "list" && count == 0) {
        return List(out, err);
    }
    if (command == "dump" && count == 1) {
        return Dump(args[1], out, err);
    }
    if (command == "export" && count == 2) {
        return Export(args[1], args[2], err);
    }
    if (command == "import" && (count == 1 || (count == 2 && args[2] == "--overwrite"))) {
        return Import(args[1], count == 2, err);
    }
    if (command == "delete" && count == 1) {
        return Delete(args[1], err);
    }
    if (command == "lan" && count == 0) {
        return Lan(out, err);
    }
    return Usage(err, "bad zone command");
}

}  // namespace qbrix::tools
