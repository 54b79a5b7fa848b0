// How the demo gets its scene archive into the download cache: over HTTP from
// a local server it starts (demo_fetch_http.cpp, when liboru-net is built),
// or, without liboru-net, by adding the archive to the cache directly
// (demo_fetch_builtin.cpp).
#pragma once

#include <oru/data_source.h>

#include <memory>
#include <string>

// The scene archive as the cache hands it out, or null (after saying why on
// stderr). `archive` is the archive's bytes, as a server would send them;
// `fresh` drops the scene from the cache first, as on a first run. Prints
// which way the archive came.
std::shared_ptr<oru::DataSource> FetchScene(bool fresh, std::string const& archive,
                                            std::string& sceneUrl);
