#pragma once
// Blocking HTTP and HTTPS for the CalDAV store: one request per connection (some servers answer
// HTTP/1.0 and close anyway), Basic authentication, a deadline for the whole exchange. Calls
// run on the calendar provider's worker thread, so blocking is fine there; Beast stays inside
// the .cpp. The password never reaches a log line or an error message.
#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tamsel/base/error.hpp"

namespace tamsel::calendar {

struct DAVResponse {
  int status = 0;
  std::string etag;      // empty when the server sent none
  std::string location;  // for redirects
  std::string body;
};

// A failure to talk to the server at all (name lookup, connection, deadline, bad answer).
struct DAVTransportError : base::Error {
  static constexpr std::string_view category = "caldav";
  explicit DAVTransportError(const std::string& message) : Error(category, "failed", message) {}
};

class DAVClient {
 public:
  // `baseURL` is an http or https URL; throws std::invalid_argument for anything else. https
  // servers are checked against the system's CA store (SSL_CERT_FILE / SSL_CERT_DIR apply); a
  // certificate that fails is a DAVTransportError, never accepted.
  DAVClient(std::string baseURL, std::string user, std::string password,
            std::chrono::milliseconds timeout = std::chrono::seconds(30));

  // `target` is an absolute URL or a reference (usually an href from a multistatus) resolved
  // against the base URL. Redirects are not followed here (see `propfindFollowing`).
  DAVResponse request(const std::string& method, const std::string& target,
                      const std::vector<std::pair<std::string, std::string>>& headers = {},
                      const std::string& body = {}, const std::string& contentType = {}) const;

  // The absolute URL a reference names, resolved against `against` (the base URL when empty).
  std::string resolve(const std::string& reference, const std::string& against = {}) const;
  // The path of an absolute URL or reference, as a server writes it in <href>.
  static std::string pathOf(const std::string& url);
  const std::string& baseURL() const { return base_; }
  // "host:port" for messages.
  std::string authority() const;
  // Whether two absolute URLs share scheme, host and port (default ports included): the
  // account's credentials go only to its own server, never along a redirect elsewhere.
  static bool sameOrigin(const std::string& a, const std::string& b);

 private:
  std::string base_;
  std::string user_;
  std::string password_;
  std::chrono::milliseconds timeout_;
};

// Checks that `url` is something DAVClient can talk to; the reason when not.
std::optional<std::string> unsupportedDAVURL(const std::string& url);

}  // namespace tamsel::calendar
