#include "tamsel/calendar/caldav_http.hpp"

#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/error.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>
#include <boost/url/parse.hpp>
#include <boost/url/url.hpp>
#include <cctype>
#include <stdexcept>

#include "tamsel/base/log.hpp"

namespace tamsel::calendar {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace urls = boost::urls;
using asio::ip::tcp;

namespace {

constexpr const char* kSource = "calendar.caldav";

std::string base64(const std::string& text) {
  std::string out(4 * ((text.size() + 2) / 3) + 1, '\0');
  const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                reinterpret_cast<const unsigned char*>(text.data()),
                                static_cast<int>(text.size()));
  out.resize(static_cast<std::size_t>(n));
  return out;
}

urls::url parseAbsolute(const std::string& text) {
  auto parsed = urls::parse_uri(text);
  if (!parsed) throw std::invalid_argument("not a URL: " + text);
  return urls::url(*parsed);
}

}  // namespace

std::optional<std::string> unsupportedDAVURL(const std::string& url) {
  auto parsed = urls::parse_uri(url);
  if (!parsed) return "not a URL: " + url;
  if (parsed->scheme() != "http" && parsed->scheme() != "https")
    return "expected an http or https URL, got " + url;
  if (parsed->host().empty()) return "the URL has no host: " + url;
  if (parsed->has_userinfo())
    return "put the user name in --user and the password in --password-env, not in the URL";
  return std::nullopt;
}

DAVClient::DAVClient(std::string baseURL, std::string user, std::string password,
                     std::chrono::milliseconds timeout)
    : base_(std::move(baseURL)),
      user_(std::move(user)),
      password_(std::move(password)),
      timeout_(timeout) {
  if (const auto reason = unsupportedDAVURL(base_)) throw std::invalid_argument(*reason);
  // A collection URL without its slash makes every relative href resolve one level too high.
  auto url = parseAbsolute(base_);
  if (url.encoded_path().empty()) url.set_encoded_path("/");
  base_ = std::string(url.buffer());
}

std::string DAVClient::resolve(const std::string& reference, const std::string& against) const {
  const auto base = parseAbsolute(against.empty() ? base_ : against);
  auto ref = urls::parse_uri_reference(reference);
  if (!ref) throw DAVTransportError("the server gave a malformed href: " + reference);
  urls::url out;
  if (auto r = urls::resolve(base, *ref, out); !r)
    throw DAVTransportError("cannot resolve href: " + reference);
  return std::string(out.buffer());
}

std::string DAVClient::pathOf(const std::string& url) {
  auto ref = urls::parse_uri_reference(url);
  if (!ref) return url;
  std::string path(ref->encoded_path());
  return path.empty() ? "/" : path;
}

std::string DAVClient::authority() const {
  const auto url = parseAbsolute(base_);
  return std::string(url.encoded_host()) + (url.has_port() ? ":" + std::string(url.port()) : "");
}

namespace {

// Verifies the server against the system's CA store (or SSL_CERT_FILE / SSL_CERT_DIR, which
// OpenSSL reads for its default paths), made per request so a changed store applies at once.
asio::ssl::context tlsContext() {
  asio::ssl::context ctx(asio::ssl::context::tls_client);
  ctx.set_options(asio::ssl::context::default_workarounds | asio::ssl::context::no_sslv2 |
                  asio::ssl::context::no_sslv3 | asio::ssl::context::no_tlsv1 |
                  asio::ssl::context::no_tlsv1_1);
  SSL_CTX_set_min_proto_version(ctx.native_handle(), TLS1_2_VERSION);
  ctx.set_default_verify_paths();
  ctx.set_verify_mode(asio::ssl::verify_peer);
  return ctx;
}

// The certificate must name the host the URL names: an IP address as an IP entry, a name as
// a DNS entry. SNI carries names only, never addresses.
void expectPeer(SSL* ssl, const urls::url& url, const std::string& host) {
  const bool isAddress =
      url.host_type() == urls::host_type::ipv4 || url.host_type() == urls::host_type::ipv6;
  X509_VERIFY_PARAM* param = SSL_get0_param(ssl);
  X509_VERIFY_PARAM_set_hostflags(param, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
  const bool set = isAddress ? X509_VERIFY_PARAM_set1_ip_asc(param, host.c_str()) == 1
                             : SSL_set1_host(ssl, host.c_str()) == 1 &&
                                   SSL_set_tlsext_host_name(ssl, host.c_str()) == 1;
  if (!set) throw DAVTransportError("cannot set up TLS for host " + host);
}

}  // namespace

bool DAVClient::sameOrigin(const std::string& a, const std::string& b) {
  try {
    const auto x = parseAbsolute(a);
    const auto y = parseAbsolute(b);
    auto port = [](const urls::url_view& u) {
      if (u.has_port()) return std::string(u.port());
      return std::string(u.scheme() == "https" ? "443" : "80");
    };
    auto lower = [](std::string s) {
      for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      return s;
    };
    return lower(std::string(x.scheme())) == lower(std::string(y.scheme())) &&
           lower(std::string(x.encoded_host())) == lower(std::string(y.encoded_host())) &&
           port(x) == port(y);
  } catch (const std::exception&) {
    return false;
  }
}

DAVResponse DAVClient::request(const std::string& method, const std::string& target,
                               const std::vector<std::pair<std::string, std::string>>& headers,
                               const std::string& body, const std::string& contentType) const {
  const auto url = parseAbsolute(resolve(target));
  const bool tls = url.scheme() == "https";
  if (!tls && url.scheme() != "http")
    throw DAVTransportError("refusing to follow a link to " + std::string(url.scheme()));
  // The credentials go with every request, so an https account never falls back to plain http.
  if (!tls && parseAbsolute(base_).scheme() == "https")
    throw DAVTransportError("refusing to follow a link from https to http: " +
                            std::string(url.buffer()));
  const std::string host(url.host_address());
  const std::string port = url.has_port() ? std::string(url.port()) : (tls ? "443" : "80");
  std::string path(url.encoded_path());
  if (path.empty()) path = "/";
  if (url.has_query()) path += "?" + std::string(url.encoded_query());

  http::request<http::string_body> req{http::string_to_verb(method), path, 11};
  if (req.method() == http::verb::unknown) req.method_string(method);
  req.set(http::field::host, std::string(url.encoded_host()) + (url.has_port() ? ":" + port : ""));
  req.set(http::field::user_agent, "tamsel-desktop");
  req.set(http::field::connection, "close");
  if (!user_.empty() && sameOrigin(std::string(url.buffer()), base_))
    req.set(http::field::authorization, "Basic " + base64(user_ + ":" + password_));
  for (const auto& [name, value] : headers) req.set(name, value);
  if (!contentType.empty()) req.set(http::field::content_type, contentType);
  req.body() = body;
  req.prepare_payload();

  asio::io_context io;
  tcp::resolver resolver(io);
  // Plain http uses the same stream type and never starts TLS on it.
  asio::ssl::context ctx = tls ? tlsContext() : asio::ssl::context(asio::ssl::context::tls_client);
  beast::ssl_stream<beast::tcp_stream> stream(io, ctx);
  if (tls) expectPeer(stream.native_handle(), url, host);
  beast::tcp_stream& tcpStream = beast::get_lowest_layer(stream);
  beast::flat_buffer buffer;
  http::response_parser<http::string_body> parser;
  parser.body_limit(64 * 1024 * 1024);
  beast::error_code failure;
  const char* stage = "resolve";

  // The deadline covers the whole exchange (the TLS handshake included); Beast applies it to
  // asynchronous operations only, so the exchange is asynchronous and this thread runs it to
  // the end.
  const auto exchange = [&](auto& s) {
    http::async_write(s, req, [&](beast::error_code ec, std::size_t) {
      if (ec) return void(failure = ec);
      stage = "read";
      http::async_read(s, buffer, parser, [&](beast::error_code ec, std::size_t) {
        if (ec) failure = ec;
      });
    });
  };
  tcpStream.expires_after(timeout_);
  resolver.async_resolve(
      host, port, [&](beast::error_code ec, tcp::resolver::results_type results) {
        if (ec) return void(failure = ec);
        stage = "connect";
        tcpStream.async_connect(results, [&](beast::error_code ec, const tcp::endpoint&) {
          if (ec) return void(failure = ec);
          stage = "send";
          if (!tls) return exchange(tcpStream);
          stage = "handshake";
          stream.async_handshake(asio::ssl::stream_base::client, [&](beast::error_code ec) {
            if (ec) return void(failure = ec);
            stage = "send";
            exchange(stream);
          });
        });
      });
  io.run();
  beast::error_code ignored;
  tcpStream.socket().shutdown(tcp::socket::shutdown_both, ignored);
  if (failure) {
    const std::string reason = failure == beast::error::timeout ? "timed out" : failure.message();
    base::log::debug(kSource, "{} {}: {} failed: {}", method, path, stage, reason);
    if (tls) {
      if (const long verify = SSL_get_verify_result(stream.native_handle()); verify != X509_V_OK)
        throw DAVTransportError("the CalDAV server's certificate is not trusted: " +
                                std::string(X509_verify_cert_error_string(verify)) + " (" +
                                authority() + ")");
    }
    throw DAVTransportError("cannot reach the CalDAV server at " + authority() + " (" + stage +
                            ": " + reason + ")");
  }
  auto& res = parser.get();
  DAVResponse out;
  out.status = static_cast<int>(res.result_int());
  out.etag = std::string(res[http::field::etag]);
  out.location = std::string(res[http::field::location]);
  out.body = std::move(res.body());
  base::log::debug(kSource, "{} {} -> {}", method, path, out.status);
  return out;
}

}  // namespace tamsel::calendar
