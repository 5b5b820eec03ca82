#pragma once

#include <boost/json/object.hpp>
#include <optional>
#include <vector>

#include "devservice/commands.h"
#include "devservice/store.h"

namespace kestro::devservice {

// The JSON forms of the service's objects, shared by the dashboard API and the push channel
// (see README.md for each field).

/// A device's stored fields: what a "device" message with change "added" or "changed" carries.
boost::json::object storedDeviceJSON(const DeviceRow& row);
/// The whole Device: stored fields, item count, link state and steering state.
boost::json::object deviceJSON(const DeviceRow& row, std::optional<double> connectedSince,
                               const std::vector<RuleRow>& rules);
boost::json::object steeringJSON(const std::vector<RuleRow>& rules, bool breakpoints);
boost::json::object itemRowJSON(const ItemRow& row);
boost::json::object ruleJSON(const RuleRow& row);
boost::json::object commandJSON(const CommandRecord& command);

}  // namespace kestro::devservice
