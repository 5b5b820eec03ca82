#include "devservice/context.h"

#include "devservice/json_views.h"
#include "kestro/core/config.h"
#include "kestro/core/console.h"
#include "kestro/core/time_text.h"

namespace kestro::devservice {
namespace json = boost::json;

double nowSeconds() { return secondsSince1970(std::chrono::system_clock::now()); }

Context::Context(DevServiceOptions o, std::unique_ptr<DevStore> s, std::string t)
    : options(std::move(o)),
      store(std::move(s)),
      token(std::move(t)),
      started(std::chrono::steady_clock::now()),
      steering(*store, links, commands, [this] { return now(); }) {
    store->setListener(&hub);
    links.setListener([this](const std::string& deviceId, std::optional<double> since) {
        hub.linkChanged(deviceId, since);
    });
    commands.setListener([this](const CommandRecord& c) { hub.commandChanged(c); });
}

double Context::now() const { return options.clock ? options.clock() : nowSeconds(); }

json::object Context::snapshot(std::string_view reason) {
    // The revision first: an item that lands while the devices are read is then fetched again
    // by a page that asks for what changed after it, never missed.
    const std::int64_t revision = store->latestRevision();
    json::array devices;
    for (const auto& row : store->devices()) {
        devices.push_back(deviceJSON(row, links.connectedSince(row.id), store->rules(row.id)));
    }
    json::array recent;
    for (const auto& c : commands.recent("", 100)) recent.push_back(commandJSON(c));
    return json::object{{"type", "snapshot"},           {"reason", reason},
                        {"revision", revision},         {"service", "kestro-devservice"},
                        {"version", SDK_VERSION},       {"devices", std::move(devices)},
                        {"commands", std::move(recent)}};
}

void Context::log(std::string_view line) const {
    if (options.logRequests) printI(line, LogLevel::info);
}

}  // namespace kestro::devservice
