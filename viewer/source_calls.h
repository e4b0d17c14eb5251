// SPDX-License-Identifier: MIT

// The calls about sources, databases and captures. They change something: they write only into the
// database that is open, or into a new file of the start folder.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "api.h"
#include "captures.h"
#include "folder.h"

namespace viewer {

Json capturesJson(const std::vector<CaptureState>& states);

class SourceCalls {
 public:
  SourceCalls(Database& database, Captures& captures) : database_(database), captures_(captures) {}

  // The routes refer to this object.
  std::vector<Route> routes();

 private:
  HttpAnswer databases(const Call& call);
  HttpAnswer open(const Call& call);
  HttpAnswer start(const Call& call);
  HttpAnswer list();
  HttpAnswer end(const Call& call);
  HttpAnswer cap(const Call& call);
  HttpAnswer clear(const Call& call);
  std::optional<std::string> openedPath(const std::string& name) const;

  Database& database_;
  Captures& captures_;
  Folder folder_;
};

}  // namespace viewer
