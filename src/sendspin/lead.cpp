#include "sendspin/lead.h"

#include <cmath>
#include <cstdlib>

namespace vt::sendspin {

double configuredLeadMs() {
    if (const char* text = std::getenv("VELLATONE_SENDSPIN_LEAD_MS"); text && *text) {
        char* end = nullptr;
        const double value = std::strtod(text, &end);
        if (end && *end == '\0' && std::isfinite(value)) return value;
    }
    return kDefaultLeadMs;
}

}  // namespace vt::sendspin
