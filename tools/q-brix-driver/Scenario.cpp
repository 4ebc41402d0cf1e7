#include "Scenario.h"

#include <charconv>

namespace qbrix::refdriver {

int ParseScenario(std::string_view text, std::vector<ScenarioStep>* steps, std::string* error) {
    std::vector<ScenarioStep> result;
    std::chrono::milliseconds at{0};
    int number = 0;
    while (!text.empty()) {
        std::size_t end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
        ++number;
        std::size_t begin = line.find_first_not_of(" \t\r");
        if (begin == std::string_view::npos || line[begin] == '#') {
            continue;
        }
        line = line.substr(begin);
        while (!line.empty() &&
               (line.back() == '\r' || line.back() == ' ' || line.back() == '\t')) {
            line.remove_suffix(1);
        }
        std::string prefix = "line " + std::to_string(number) + ": ";
        if (line.substr(0, 5) == "wait ") {
            std::string_view value = line.substr(5);
            unsigned long milliseconds = 0;
            auto [stop, failure] =
                std::from_chars(value.data(), value.data() + value.size(), milliseconds);
            if (failure != std::errc() || stop != value.data() + value.size() ||
                milliseconds > 86400000UL) {
                *error = prefix + "expected: wait MILLISECONDS";
                return 1;
            }
            at += std::chrono::milliseconds(milliseconds);
        } else if (line.substr(0, 8) == "connect ") {
            ScenarioStep step;
            step.at = at;
            std::string reason;
            if (ParseConnection(line.substr(8), &step.connection, &reason) != 0) {
                *error = prefix + reason;
                return 1;
            }
            result.push_back(step);
        } else {
            *error = prefix + "expected connect or wait";
            return 1;
        }
    }
    *steps = std::move(result);
    return 0;
}

}  // namespace qbrix::refdriver
