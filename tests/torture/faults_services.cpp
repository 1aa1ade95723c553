#include "torture/faults.h"
const std::span<const Scenario> service_scenarios;
