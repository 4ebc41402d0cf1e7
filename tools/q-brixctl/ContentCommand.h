// q-brixctl rule, unit and options: content rules and protocol options on the installed
// platform, for rule authors trying rules on saved pages and mails.
//   rule list [--protocol http|pop3]
//   rule export NAME FILE [--protocol P]
//   rule import FILE [--protocol P] [--overwrite]
//   rule delete NAME [--protocol P]
//   rule test (--file RULE.xml | --name NAME [--protocol P]) INPUT [--trace FILE] [--output FILE]
//   unit test --find P [--compare P] [--replace T] [--comment C] INPUT [--output FILE]
//   options show [--protocol P]
//   options set SWITCH VALUE [--protocol P]
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace qbrix::tools {

// Each takes the arguments after its command word. 0 when the command did its work, 1 when it
// failed (unknown rule, unreadable file, pattern that does not compile), 2 on a usage error.
int RunRuleCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);
int RunUnitCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);
int RunOptionsCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

}  // namespace qbrix::tools
