#include "AppCommand.h"

#include <cstring>
#include <vector>

#include "core/RegistryKey.h"
#include "driver/DriverControl.h"
#include "policy/ZoneList.h"
#include "policy/ZoneStore.h"

namespace qbrix::tools {

namespace {

using driver::AppRecord;

constexpr char kAppUsage[] =
    "usage: q-brixctl app list\n"
    "       q-brixctl app set IMAGE ZONE\n"
    "       q-brixctl app delete IMAGE\n";
constexpr char kFilteringUsage[] = "usage: q-brixctl filtering on|off\n";

int Failed(std::ostream& err, const std::string& why) {
    err << "q-brixctl: " << why << "\n";
    return 1;
}

bool OpenDriver(std::ostream& err) {
    if (driver::OpenDriverDevice(1) != 0) {
        Failed(err, "no driver serves this data root");
        return false;
    }
    return true;
}

bool ImageFits(const std::string& image, std::ostream& err) {
    if (image.empty() || image.size() > sizeof(AppRecord{}.imageName)) {
        Failed(err, "an image name has 1 to " + std::to_string(sizeof(AppRecord{}.imageName)) +
                        " bytes: " + image);
        return false;
    }
    return true;
}

int List(std::ostream& out, std::ostream& err) {
    if (!OpenDriver(err)) {
        return 1;
    }
    std::vector<AppRecord> records(driver::kAppListBufferSize / sizeof(AppRecord));
    int count =
        driver::ListAppRecords(driver::g_hDriver, records.data(),
                               static_cast<platform::DWORD>(records.size() * sizeof(AppRecord)));
    out << "image\tzone\ttcp in\ttcp out\tudp in\tudp out\tpath\n";
    for (int i = 0; i < count; ++i) {
        const AppRecord& record = records[static_cast<std::size_t>(i)];
        out << driver::FieldText(record.imageName) << "\t" << driver::FieldText(record.zone.name);
        for (const driver::Counter64& counter : record.counters) {
            out << "\t" << counter.Value();
        }
        out << "\t" << driver::FieldText(record.path) << "\n";
    }
    return 0;
}

int Set(const std::string& image, const std::string& zoneName, std::ostream& out,
        std::ostream& err) {
    if (!ImageFits(image, err)) {
        return 1;
    }
    platform::LONG rc = policy::LoadZones(policy::FirstRun::NoWizard);
    if (rc != 0) {
        return Failed(err, "cannot read the zone list: " + core::StoreFailureText(rc));
    }
    const driver::ZoneRecord* zone = policy::FindZone(zoneName);
    if (zone == nullptr) {
        return Failed(err, "no zone named '" + zoneName + "'");
    }
    if (!OpenDriver(err)) {
        return 1;
    }
    AppRecord record{};
    driver::SetFieldText(record.imageName, image);
    AppRecord known = record;
    if (driver::GetAppRecord(driver::g_hDriver, &known) == 1) {
        record = known;  // its path, description and counters stay
    }
    std::memcpy(&record.zone, zone, sizeof record.zone);
    if (driver::SetAppRecord(driver::g_hDriver, record) != 0) {
        return Failed(err, "the driver refused the record of " + image);
    }
    out << image << ": " << driver::FieldText(record.zone.name) << "\n";
    return 0;
}

int Delete(const std::string& image, std::ostream& out, std::ostream& err) {
    if (!ImageFits(image, err) || !OpenDriver(err)) {
        return 1;
    }
    AppRecord known{};
    driver::SetFieldText(known.imageName, image);
    if (driver::GetAppRecord(driver::g_hDriver, &known) != 1) {
        return Failed(err, "the driver does not know " + image);
    }
    if (driver::DeleteAppRecord(driver::g_hDriver, image.c_str()) != 0) {
        return Failed(err, "the driver did not delete " + image +
                               " (a connection of it may be waiting for an answer)");
    }
    out << image << ": deleted\n";
    return 0;
}

}  // namespace

int RunAppCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    if (args.size() == 1 && args[0] == "list") {
        return List(out, err);
    }
    if (args.size() == 3 && args[0] == "set") {
        return Set(args[1], args[2], out, err);
    }
    if (args.size() == 2 && args[0] == "delete") {
        return Delete(args[1], out, err);
    }
    err << kAppUsage;
    return 2;
}

int RunFilteringCommand(const std::vector<std::string>& args, std::ostream& out,
                        std::ostream& err) {
    if (args.size() != 1 || (args[0] != "on" && args[0] != "off")) {
        err << kFilteringUsage;
        return 2;
    }
    if (!OpenDriver(err)) {
        return 1;
    }
    if (driver::SetFilteringState(driver::g_hDriver, args[0] == "on" ? 1 : 0) != 0) {
        return Failed(err, "the driver refused the filtering state");
    }
    out << "filtering " << args[0] << "\n";
    return 0;
}

}  // namespace qbrix::tools
