#include "airplay_tool/airplay2_route.h"
#include "airplay_tool/raop_route.h"
#include "airplay_tool/route.h"

namespace vt::airplay_tool {

std::unique_ptr<Route> makeRoute(const ToolOptions& options, StatusWriter& status) {
    switch (options.protocol) {
        case Protocol::automatic:
        case Protocol::raop:
            return std::make_unique<RaopRoute>(options, status);
        case Protocol::airplay2:
        case Protocol::airplay2Compat:
            return std::make_unique<AirPlay2Route>(options, status);
    }
    status.error(error_code::unsupported, 0,
                 "the " + protocolName(options.protocol) + " route is not available in this build");
    return nullptr;
}

}  // namespace vt::airplay_tool
