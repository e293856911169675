#pragma once

#include <string>

// Fixed locations of the program on this machine.
namespace vistrel::host {

// $TMPDIR when set and not empty, else "/tmp".
std::string temp_folder();
// $HOME, else the password database's home; empty when neither is known.
std::string profile_folder();
// The maker's folder: $QUELLWICK_ROOT when set and not empty, else "/opt/quellwick".
std::string maker_folder();
// <maker>/vistrel/centralizedserver: default database, latest_config.yml, filter rules.
std::string server_folder();
// <maker>/vistrel/watchkeep: the capture engine's folder; its program is "watchkeep".
std::string watchkeep_folder();
// <maker>/tidewell/firmware/firmware.xml
std::string firmware_catalogue_path();
// /usr/bin/tshark
std::string tshark_program();

// A configured path: "/..." is kept; anything else is relative to the profile folder
// ("data/caps" -> "$HOME/data/caps"). Without a profile folder: "'SHGetFolderPath failed'".
std::string resolve_path(const std::string& path);

}  // namespace vistrel::host
