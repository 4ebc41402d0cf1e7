// Builds the control panel's pages and timer steps from the subsystems of this build.
#pragma once

#include "ui/ControlPanel.h"

namespace qbrix::app {

ui::PanelParts BuildPanelParts();

}  // namespace qbrix::app
