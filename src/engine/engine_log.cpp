#include "engine/engine_log.h"

#include <cstdio>

namespace vt::engine {

void engineLog(const std::string& text) {
    std::fprintf(stderr, "Vellatone capture: %s\n", text.c_str());
}

}  // namespace vt::engine
