// The counters of the front end in the Prometheus text format, behind what the daemon says of itself.
#pragma once

#include <string>

std::string metrics_text();
