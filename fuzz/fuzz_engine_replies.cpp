// Everything the engine sends back that the client parses without a schema of its own choosing:
// pidfiles, dates, error bodies and reply records. None of it may crash or hang the desktop.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "tamsel/base/json.hpp"
#include "tamsel/bridge/daemon_client_error.hpp"
#include "tamsel/bridge/daemon_records.hpp"
#include "tamsel/bridge/pidfile_reader.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  (void)tamsel::bridge::PidfileReader::parse(text);
  (void)tamsel::base::parseISO8601(text);
  (void)tamsel::bridge::DaemonClientError::fromResponse(400, text).description();
  try {
    (void)tamsel::base::json::decode<std::vector<tamsel::bridge::DaemonSession>>(text);
  } catch (const tamsel::base::json::DecodeError&) {
  }
  try {
    (void)tamsel::base::json::decode<tamsel::bridge::DaemonStatus>(text);
  } catch (const tamsel::base::json::DecodeError&) {
  }
  return 0;
}
