// The collector of a virtual host, vorn_monitor_esx, and its settings file
// "<install root>/settings/vorn_esx.config": the usual collector rates plus
// the virtual host's address and login, the password kept encoded.
#pragma once

#include <string>

#include "components/dc_settings.h"

namespace kova {

// The virtual host's collector, as the agent starts it. The command line
// ends in a line feed, which the shell takes as the end of the command:
// whatever the caller appends runs as a command of its own.
inline constexpr const char* kEsxCollectorProgram = "/bin/vorn_monitor_esx\n";
// Its process name as the process table shows it, cut to 15 characters.
inline constexpr const char* kEsxCollectorName = "vorn_monitor_es";
// Under the install root.
inline constexpr const char* kEsxSettingsFile = "/settings/vorn_esx.config";

// The collector settings with the same defaults, and the virtual host. The
// settings file path is the inherited settings_file.
struct DcEsxSettings : DcSettings {
  std::string esx_hostname;  // HOSTNAME~: the virtual host served
  std::string host_ip;       // HOST_IP~
  std::string username;      // USERNAME~
  std::string passwd;        // PASSWD~, in plain text once read
  std::string javahome;      // JAVAHOME~
  std::string classpath;     // CLASSPATH~
  int classpath_given = 0;
  int javahome_given = 0;
  int username_given = 0;
  int passwd_given = 0;
};

// "<root>/settings/vorn_esx.config".
std::string esx_settings_path(const std::string& install_root);

// Reads record.settings_file over the record, decoding the password. 1 when
// at least one key was recognised; 0 otherwise, the record untouched when
// the file could not be opened.
int dc_parse_startup_file_esx(DcEsxSettings& record);

// Writes record.settings_file whole (under a temporary name, then renamed):
// host, address, write and peak rates, retain, priority, verbose, user
// name, the encoded password, Java home and class path; the scan rate, the
// groups and the other collector keys are not written. 1 when written; 0
// with a message on stderr when it could not be.
[[nodiscard]] int dc_write_settings_file_esx(DcEsxSettings& record);

}  // namespace kova
