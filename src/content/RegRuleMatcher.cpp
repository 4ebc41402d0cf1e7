#include "content/RegRuleMatcher.h"

#include "content/RuleEngine.h"

namespace qbrix::content {

void RegRuleMatcher::Assign(const RegRule& stored) {
    Reset();
    enable = stored.enable;
    if (stored.findFlag != 0) {
        findText = stored.find;
        if (CompilePattern(findPattern, findText) != 0) {
            return;
        }
    }
    if (stored.compareFlag != 0) {
        compareSwitch = 1;
        // A Compare that does not compile is not reported: it simply never matches.
        CompilePattern(comparePattern, stored.compare);
        compareText = stored.compare;
    }
    if (stored.replaceFlag != 0) {
        replaceSwitch = 1;
        rawReplacement = stored.replace;
        replacement = ExpandReplaceEscapes(stored.replace);
    }
    comment = stored.comment;
}

RegRule RegRuleMatcher::ToRegRule() const {
    RegRule stored;
    stored.find = findText;
    stored.compare = compareText;
    stored.replace = rawReplacement;
    stored.comment = comment;
    stored.findFlag = 1;
    stored.compareFlag = compareSwitch;
    stored.replaceFlag = replaceSwitch;
    stored.enable = enable;
    return stored;
}

void RegRuleMatcher::Reset() {
    findText.clear();
    findPattern.Free();
    compareSwitch = 0;
    compareText.clear();
    comparePattern.Free();
    replaceSwitch = 0;
    replacement.clear();
    rawReplacement.clear();
    comment.clear();
    enable = 0;
}

}  // namespace qbrix::content
