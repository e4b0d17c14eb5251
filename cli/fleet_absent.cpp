// SPDX-License-Identifier: MIT

// Stands in for the fleet in a build without libcurl.
#include "fleet_commands.h"
#include "host/failure.h"

namespace cli {
namespace {

[[noreturn]] void refuse() {
  host::fail("this runeflow was built without the fleet; build it with RUNEFLOW_BUILD_FLEET");
}

}  // namespace

bool isFleet(const std::string& database) {
  return database.starts_with("http://") || database.starts_with("https://");
}

int queryFleet(const QueryOptions&) {
  refuse();
}

int valuesOfFleet(const ValuesOptions&) {
  refuse();
}

int infoOfFleet(const InfoOptions&) {
  refuse();
}

int ship(const ShipOptions&) {
  refuse();
}

}  // namespace cli
