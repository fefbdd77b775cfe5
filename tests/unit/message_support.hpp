#pragma once
// A transcript message with only what most tests set: its id, author and text.
#include <string>
#include <utility>

#include "tamsel/kit/transcript.hpp"

namespace tamsel::test {

inline kit::Message message(std::string id, std::string author, std::string content) {
  kit::Message m;
  m.id = std::move(id);
  m.author = std::move(author);
  m.content = std::move(content);
  return m;
}

}  // namespace tamsel::test
