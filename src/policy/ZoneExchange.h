// The zone exchange file: one zone as an XML document, so that zones move between machines.
// The document holds the declaration (a processing instruction "xml" with the data
// "version='1.0'"), the comment "q-Brix Zone" and the element MASTER_ZONE with the attributes
// NAME and RESULT and one ZONERULE element per used rule slot. No indentation is written.
#pragma once

#include <string>
#include <string_view>

#include "policy/ZoneList.h"

namespace pugi {
class xml_node;
}

namespace qbrix::policy {

// Writes the document; write errors are not reported.
void ExportZone(const ZoneRecord& zone, const std::string& path);
// Reads a zone into the caller's all-zero record; 0 when read, 1 when the file is refused
// (core::LoadXmlFile) or its last top-level node is not MASTER_ZONE, with `*why`, when given,
// set to what is wrong ("the file is not well-formed XML"). Child position i of MASTER_ZONE (i <
// 10) fills slot i when it is a ZONERULE; any other child leaves a gap.
int ImportZone(ZoneRecord& zone, const std::string& path, std::string* why = nullptr);
// Reads one rule from an element named `expectedName`; 1 when the name differs.
int ParseZoneRule(const pugi::xml_node& element, std::string_view expectedName, ZoneRule& rule);
// The default file name offered for a zone (the save dialog adds the extension).
std::string MakeExportFileName(std::string_view zoneName);

}  // namespace qbrix::policy
