#include "stage/room_layout.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <numbers>

#include "stage/sound_stage.h"

namespace vt::stage::RoomLayout {
namespace {

constexpr double kPi = std::numbers::pi;

constexpr std::array<std::string_view, 16> kOtherRooms = {
    "Kitchen", "Bedroom", "Bathroom", "Office",   "Study",  "Garage",  "Hall",  "Hallway",
    "Balcony", "Garden",  "Patio",    "Basement", "Dining", "Nursery", "Porch", "Terrace",
};

std::string lower(std::string_view s) {
    std::string out(s);
    for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

// Words are runs of letters and digits; everything else separates them.
std::vector<std::string> words(std::string_view s) {
    std::vector<std::string> out;
    std::string word;
    for (char c : s) {
        if (std::isalnum(static_cast<unsigned char>(c))) {
            word.push_back(c);
        } else if (!word.empty()) {
            out.push_back(std::move(word));
            word.clear();
        }
    }
    if (!word.empty()) out.push_back(std::move(word));
    return out;
}

// Rounded up to a tenth of a metre; the small allowance keeps 5.2 from
// becoming 5.3 through rounding of the sum.
double upToTenth(double v) {
    return std::ceil(v * 10.0 - 1e-9) / 10.0;
}
double downToTenth(double v) {
    return std::floor(v * 10.0 + 1e-9) / 10.0;
}

double floorDistance(const Point3& a, const Point3& b) {
    return std::hypot(a.x - b.x, a.y - b.y);
}

Point3 spot(double angleDeg, const Seat& seat) {
    return settled(
        SoundStage::fromPolar(angleDeg * kPi / 180.0, SoundStage::stageDistance, 0, seat));
}

double nearest(const Point3& p, const std::vector<Point3>& taken) {
    double d = INFINITY;
    for (const Point3& t : taken) d = std::min(d, floorDistance(p, t));
    return d;
}

}  // namespace

std::vector<Placed> staged(const Places& rows, const std::vector<bool>& counted,
                           const RoomState& room) {
    std::vector<Placed> out;
    if (!room.enabled) return out;
    for (std::size_t i = 0; i < rows.size(); ++i) {
        if (i >= counted.size() || !counted[i]) continue;
        const auto& place = rows[i];
        if (!place || !place->at || place->zone) continue;
        out.push_back(Placed{static_cast<int>(i), *place->at, place->stereo});
    }
    return out;
}

std::vector<Mix2> mixes(const Places& rows, const std::vector<bool>& counted, const RoomState& room,
                        std::size_t slots) {
    std::vector<Mix2> out(slots, Mix2::identity());
    const std::vector<Placed> placed = staged(rows, counted, room);
    if (placed.empty()) return out;
    for (const auto& [slot, mix] :
         SoundStage::mixes(placed, room.seat, room.stageWidthDeg, room.focus)) {
        if (slot >= 0 && static_cast<std::size_t>(slot) < slots) out[slot] = mix;
    }
    return out;
}

double flightMs(const std::optional<RowPlace>& place, bool counted, const RoomState& room) {
    if (!room.enabled || !counted || !place || place->zone || !place->at) return 0.0;
    return SoundStage::flightMs(*place->at, room.seat);
}

std::vector<double> testGains(const Places& rows, const std::vector<bool>& counted,
                              const RoomState& room, const Point3& at, std::size_t slots) {
    std::vector<double> out(slots, 0.0);
    const std::vector<Placed> placed = staged(rows, counted, room);
    if (placed.empty()) return out;
    for (const auto& [slot, gain] : SoundStage::pointGains(placed, at, room.seat, room.focus)) {
        if (slot >= 0 && static_cast<std::size_t>(slot) < slots) out[slot] = gain;
    }
    return out;
}

Point3 settled(Point3 point) {
    point.z = std::max(point.z, lowest);
    return point;
}

Point3 onRing(const Point3& point, double distance, const Seat& seat) {
    const SoundStage::Polar p = SoundStage::polar(point, seat);
    const double flat = std::sqrt(std::max(0.0, distance * distance - p.up * p.up));
    return settled(SoundStage::fromPolar(p.bearing, flat, p.up, seat));
}

RoomState grown(const RoomState& room, const std::vector<Point3>& around) {
    RoomState r = room;
    for (const Point3& p : around) {
        r.width = std::max(r.width, upToTenth(p.x + wallMargin));
        r.depth = std::max(r.depth, upToTenth(p.y + wallMargin));
        r.height = std::max(r.height, upToTenth(p.z + wallMargin));
    }
    return r;
}

Box box(const RoomState& room, const std::vector<Point3>& around) {
    const RoomState g = grown(room, around);
    Box b;
    for (const Point3& p : around) {
        b.x0 = std::min(b.x0, downToTenth(p.x - wallMargin));
        b.y0 = std::min(b.y0, downToTenth(p.y - wallMargin));
    }
    b.width = g.width - b.x0;
    b.depth = g.depth - b.y0;
    b.height = g.height;
    return b;
}

std::vector<std::pair<int, Point3>> arrange(const std::vector<int>& ids, std::optional<int> centre,
                                            const Seat& seat) {
    if (ids.empty()) return {};
    std::vector<int> order = ids;
    if (centre && std::find(ids.begin(), ids.end(), *centre) == ids.end()) {
        order.insert(order.begin() + static_cast<std::ptrdiff_t>(ids.size() / 2), *centre);
    }
    const std::size_t n = order.size();
    const long middle = static_cast<long>(n - 1) / 2;
    const double step = n > 1 ? std::min(75.0 / static_cast<double>(n - 1), 30.0) : 0.0;
    std::vector<std::pair<int, Point3>> out;
    for (std::size_t i = 0; i < n; ++i) {
        const double bearing =
            seat.face + step * static_cast<double>(static_cast<long>(i) - middle) * kPi / 180.0;
        out.emplace_back(order[i],
                         Point3{seat.x + SoundStage::stageDistance * std::sin(bearing),
                                seat.y - SoundStage::stageDistance * std::cos(bearing), seat.z});
    }
    return out;
}

std::vector<double> sides(double every) {
    std::vector<double> out{0.0};
    if (every > 0) {
        for (double a = every; a < 75.0; a += every) {
            out.push_back(a);
            out.push_back(-a);
        }
    }
    out.push_back(75.0);
    out.push_back(-75.0);
    return out;
}

std::optional<Point3> inFront(std::string_view name, const std::vector<Point3>& taken,
                              const Seat& seat) {
    if (other(name)) return std::nullopt;
    for (double angle : sides(30)) {
        const Point3 p = spot(angle, seat);
        // Compared a hair under the clearance so that an exact 0.6 is not
        // refused by rounding.
        if (nearest(p, taken) >= 0.599999999) return p;
    }
    std::optional<Point3> best;
    double bestDistance = -1;
    for (double angle : sides(5)) {
        const Point3 p = spot(angle, seat);
        const double d = nearest(p, taken);
        if (d > bestDistance) {
            best = p;
            bestDistance = d;
        }
    }
    return best;
}

std::vector<std::pair<int, Point3>> inFront(const std::vector<std::pair<int, std::string>>& rows,
                                            std::vector<Point3> taken, const Seat& seat) {
    std::vector<std::pair<int, Point3>> out;
    for (const auto& [id, name] : rows) {
        if (auto p = inFront(name, taken, seat)) {
            out.emplace_back(id, *p);
            taken.push_back(*p);
        }
    }
    return out;
}

std::optional<std::string> other(std::string_view name) {
    for (const std::string& w : words(name)) {
        const std::string l = lower(w);
        for (std::string_view room : kOtherRooms) {
            if (lower(room) == l) return std::string(room);
        }
    }
    return std::nullopt;
}

bool playsStereo(std::string_view transport, bool isCast, std::string_view airplayName,
                 std::string_view airplayModel) {
    if (transport == "Built-in" || isCast) return true;
    if (airplayModel.starts_with("AppleTV")) return true;
    for (const std::string& w : words(lower(airplayName))) {
        if (w == "tv" || w == "television") return true;
    }
    return false;
}

}  // namespace vt::stage::RoomLayout
