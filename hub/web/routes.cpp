#include "hub/web/routes.h"

namespace lumora_hub::web {
namespace {

std::vector<std::string_view> Segments(std::string_view path) {
    std::vector<std::string_view> segments;
    while (!path.empty()) {
        path.remove_prefix(1);  // the slash
        const std::size_t end = path.find('/');
        segments.push_back(path.substr(0, end));
        path = end == std::string_view::npos ? std::string_view() : path.substr(end);
    }
    return segments;
}

bool Fits(const Route& route, const std::vector<std::string_view>& path, Match& match) {
    const std::vector<std::string_view> pattern = Segments(route.pattern);
    if (pattern.size() != path.size()) {
        return false;
    }
    for (std::size_t at = 0; at < path.size(); ++at) {
        if (pattern[at] == "{device}" && !path[at].empty()) {
            match.device = PercentDecode(path[at]);
        } else if (pattern[at] == "{service}" && !path[at].empty()) {
            match.service = PercentDecode(path[at]);
        } else if (pattern[at] != path[at]) {
            return false;
        }
    }
    return true;
}

}  // namespace

const std::vector<Route>& Routes() {
    static const std::vector<Route> ROUTES = {
        {Method::GET, "/", Action::PAGE, false, false, false},
        {Method::GET, "/page/app.js", Action::PAGE, false, false, false},
        {Method::GET, "/page/network.js", Action::PAGE, false, false, false},
        {Method::GET, "/page/device.js", Action::PAGE, false, false, false},
        {Method::GET, "/page/views.js", Action::PAGE, false, false, false},
        {Method::GET, "/page/plot.js", Action::PAGE, false, false, false},
        {Method::GET, "/page/text.js", Action::PAGE, false, false, false},
        {Method::GET, "/page/style.css", Action::PAGE, true, false, false},
        {Method::GET, "/page/icon.svg", Action::PAGE, true, false, false},
        {Method::GET, "/login", Action::PAGE, true, false, false},
        {Method::POST, "/login", Action::LOGIN, true, false, false},
        {Method::POST, "/logout", Action::LOGOUT, true, false, false},
        {Method::GET, "/healthz", Action::HEALTH, true, false, false},
        {Method::GET, "/metrics", Action::METRICS, false, false, false},
        {Method::GET, "/api/openapi.json", Action::DESCRIPTION, false, false, false},
        {Method::GET, "/api/events", Action::DEVICE_EVENTS, false, true, false},
        {Method::GET, "/api/devices", Action::DEVICES, false, false, false},
        {Method::GET, "/api/devices/{device}", Action::DEVICE, false, false, false},
        {Method::POST, "/api/devices/{device}/commands", Action::COMMAND, false, false, false},
        {Method::POST, "/api/devices/{device}/data", Action::DATA, false, false, false},
        {Method::GET, "/api/devices/{device}/services/{service}/latest", Action::LATEST, false, false, false},
        {Method::GET, "/api/devices/{device}/services/{service}/events", Action::BLOCK_EVENTS, false, false,
         false},
        {Method::GET, "/api/devices/{device}/services/{service}/stream", Action::BLOCK_STREAM, false, true,
         true},
    };
    return ROUTES;
}

Match FindRoute(Method method, const std::string& path) {
    const Method wanted = method == Method::HEAD ? Method::GET : method;
    Match result;
    if (path.empty() || path.front() != '/') {
        return result;
    }
    const std::vector<std::string_view> segments = Segments(path);
    for (const Route& route : Routes()) {
        Match match;
        if (Fits(route, segments, match)) {
            result.hasPath = true;
            if (route.method == wanted) {
                match.hasPath = true;
                match.route = &route;
                return match;
            }
        }
    }
    return result;
}

}  // namespace lumora_hub::web
