// Scripted traffic: a text of lines, each "connect ..." (Connection.h) or "wait MS"; blank
// lines and lines starting with '#' are ignored. Steps run in order; a wait delays the steps
// after it.
#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include "Connection.h"

namespace qbrix::refdriver {

struct ScenarioStep {
    std::chrono::milliseconds at{0};  // from the start of the scenario
    Connection connection;
};

// 0 on success; 1 with "line N: reason" in *error.
int ParseScenario(std::string_view text, std::vector<ScenarioStep>* steps, std::string* error);

// The built-in "demo" scenario (resources/scenarios/demo.scenario).
std::string_view DemoScenario();

}  // namespace qbrix::refdriver
