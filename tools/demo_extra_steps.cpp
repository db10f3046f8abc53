// Demo steps of optional subsystems.
#include "demo_steps.h"

namespace Tool {
namespace Demo {

std::vector<Section> runExtraSteps(const StepContext&) { return {}; }

}  // namespace Demo
}  // namespace Tool
