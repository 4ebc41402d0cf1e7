// The content rule exchange file: one rule per XML file, root MASTER_RULE with the units MAIN,
// SUBST (only when there are sub-rules) and REPLACE. Group and PopUp are not exchanged.
#pragma once

#include <string>
#include <string_view>

#include "content/ContentRule.h"
#include "content/RuleList.h"
#include "core/XmlFile.h"

namespace qbrix::content {

// Files larger than this are refused as unreadable.
inline constexpr std::size_t kMaxRuleFileBytes = core::kMaxXmlFileBytes;

// Writes the rule's file; a path that cannot be written leaves nothing behind. Nothing returned.
void ExportContentRule(const ContentRule& rule, const std::string& path);
// Fills a freshly made rule from a file. 1 when the file is refused (core::LoadXmlFile) or its
// last top-level node is not the element MASTER_RULE (so anything after the root is refused);
// 2 when the rule it holds could not be stored as itself (ImportedRuleProblem); 0 otherwise.
// `*why`, when given, is set to what is wrong.
int ImportContentRule(ContentRule& rule, const std::string& path, std::string* why = nullptr);

// Why a rule read from a file could not be stored as itself, empty when it can: an empty name
// (the rule would be written onto the rules key itself), a name holding a backslash (it would
// name a key below another rule's key) or a Direction other than 0 and 1 (the load drops such a
// rule).
std::string ImportedRuleProblem(const ContentRule& rule);

// The file name proposed for exporting a rule: " " to "_", ":" to ".", "\" and "/" to "-".
std::string ProposeExportFileName(std::string_view ruleName);

// Results of ImportRuleIntoList.
inline constexpr int kImportAdded = 0;
inline constexpr int kImportFailed = 1;
inline constexpr int kImportDeclined = 2;

// The page's Import after the file dialog: imports into a new rule (a rule that could not be
// stored as itself is refused with a message box saying why); when the list holds a rule
// of the same name (compared without regard to case) asks "Overwrite existing Rule?" and on Yes
// deletes that rule. The imported rule goes to the end of the list; `added` points at it.
int ImportRuleIntoList(RuleList& list, const std::string& path, ContentRule** added = nullptr);

}  // namespace qbrix::content
