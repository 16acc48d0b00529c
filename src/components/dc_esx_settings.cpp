#include "components/dc_esx_settings.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "components/field_encoding.h"
#include "platform/files.h"
#include "settings/keyfile.h"

namespace kova {
namespace {

using E = DcEsxSettings;

// The password stands encoded in the file. The decoding covers the value's
// first 522 bytes whatever its length, its line feed included (which it
// leaves alone); a longer value keeps its tail as written.
void take_password(E& record, std::string_view rest) {
  std::string value(rest);
  std::array<char, kDecodeLength> head{};
  const size_t n = std::min(value.size(), head.size());
  value.copy(head.data(), n);
  decode(head);
  value.replace(0, n, head.data(), n);
  record.passwd = value_less_last(value);
}

// Keys in the order they are tried. The collector's own keys are shared
// with its settings file; this file has no USER~ or FILESYS_EXCLUDE~.
constexpr auto kEsxKeys = key_table<E>(
    dc_key::kLogDir, dc_key::kInstallDir, dc_key::kDataDir,
    text_key("HOSTNAME~", &E::esx_hostname),
    text_key("USERNAME~", &E::username, &E::username_given),
    KeyField<E>{"PASSWD~", KeyValue::kNone, nullptr, nullptr, &E::passwd_given, false, take_password},
    text_key("CLASSPATH~", &E::classpath, &E::classpath_given),
    text_key("JAVAHOME~", &E::javahome, &E::javahome_given),
    text_key("HOST_IP~", &E::host_ip),
    dc_key::kRetain, dc_key::kVerbose, dc_key::kRates, dc_key::kGroups,
    dc_key::kPriority, dc_key::kAppendDataFiles, dc_key::kMapDisknames);

}  // namespace

std::string esx_settings_path(const std::string& install_root) { return install_root + kEsxSettingsFile; }

int dc_parse_startup_file_esx(DcEsxSettings& record) {
  int error = 0;
  const int recognised = read_key_file<E>(record.settings_file, kEsxKeys, record, error);
  if (recognised < 0) return 0;
  record.collect_all = dc_collects_all(record);
  return recognised > 0 ? 1 : 0;
}

int dc_write_settings_file_esx(DcEsxSettings& record) {
  KeyFileText file;
  file.put("HOSTNAME~", record.esx_hostname)
      .put("HOST_IP~", record.host_ip)
      .put("WRITE_RATE~", record.write_rate)
      .put("PEAK_RATE~", record.peak_rate)
      .put("RETAIN~", record.retain)
      .put("PRIORITY~", record.priority)
      .put("VERBOSE~", record.verbose)
      .put("USERNAME~", record.username);
  std::string encoded;
  if (encode(record.passwd, encoded) == 1)
    file.put("PASSWD~", encoded);
  else
    std::fprintf(stderr, "error encoding password, not saved into settings file\n");
  file.put("JAVAHOME~", record.javahome).put("CLASSPATH~", record.classpath);
  if (replace_file(record.settings_file, file.text()) != 0) {
    std::fprintf(stderr, "failed to open %s \n", record.settings_file.c_str());
    return 0;
  }
  return 1;
}

}  // namespace kova
