#include "tamsel/base/uuid.hpp"

#include <algorithm>
#include <boost/uuid/name_generator_sha1.hpp>
#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/string_generator.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <cctype>

#include "tamsel/base/mutex.hpp"

namespace tamsel::base {

namespace {
std::string upperText(const boost::uuids::uuid& id) {
  std::string text = boost::uuids::to_string(id);
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return text;
}
}  // namespace

std::string nameUUIDString(std::string_view name) {
  // A fixed namespace of our own, so these ids never collide with other name-based ones.
  static const boost::uuids::uuid space =
      boost::uuids::string_generator()("6f1c2d3e-8a4b-5c6d-9e0f-7a8b9c0d1e2f");
  boost::uuids::name_generator_sha1 generator(space);
  return upperText(generator(name.data(), name.size()));
}

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
  return upperText(id);
}

}  // namespace tamsel::base
