#include "engine/engine_error.h"

#include <cmath>
#include <cstdio>

namespace vt::engine {

namespace {

// A double as the design's language prints one: whole values keep ".0".
std::string doubleText(double v) {
    char buf[64];
    if (std::isfinite(v) && v == std::floor(v) && std::fabs(v) < 1e15) {
        std::snprintf(buf, sizeof buf, "%.1f", v);
    } else {
        std::snprintf(buf, sizeof buf, "%.17g", v);
    }
    return buf;
}

}  // namespace

EngineError EngineError::deviceNotFound(const std::string& uid) {
    EngineError e(Kind::deviceNotFound, "deviceNotFound(\"" + uid + "\")");
    e.uid_ = uid;
    return e;
}

EngineError EngineError::soundServer(int status) {
    EngineError e(Kind::soundServer, "soundServer(" + std::to_string(status) + ")");
    e.status_ = status;
    return e;
}

EngineError EngineError::captureSinkWrongRate(double rate) {
    EngineError e(Kind::captureSinkWrongRate, "captureSinkWrongRate(" + doubleText(rate) + ")");
    e.rate_ = rate;
    return e;
}

EngineError EngineError::captureSinkMissing() {
    return EngineError(Kind::captureSinkMissing, "captureSinkMissing");
}

}  // namespace vt::engine
