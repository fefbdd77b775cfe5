#include "tamsel/base/uuid.hpp"

#include <algorithm>
#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <cctype>
#include <mutex>

namespace tamsel::base {

std::string newUUIDString() {
  // The generator seeds from the OS once; it is not thread-safe, so share it under a lock.
  static std::mutex mutex;
  static boost::uuids::random_generator generator;
  boost::uuids::uuid id;
  {
    std::lock_guard lock(mutex);
    id = generator();
  }
  std::string text = boost::uuids::to_string(id);
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return text;
}

}  // namespace tamsel::base
