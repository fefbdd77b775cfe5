#include "tamsel/base/uuid.hpp"

#include <algorithm>
#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <cctype>

#include "tamsel/base/mutex.hpp"

namespace tamsel::base {

std::string newUUIDString() {
  // The generator seeds from the OS once; it is not thread-safe, so share it under a lock.
  static struct {
    Mutex mutex;
    boost::uuids::random_generator generator GUARDED_BY(mutex);
  } shared;
  boost::uuids::uuid id;
  {
    MutexLock lock(shared.mutex);
    id = shared.generator();
  }
  std::string text = boost::uuids::to_string(id);
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return text;
}

}  // namespace tamsel::base
