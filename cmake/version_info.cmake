# Writes the version source: the project's version and the git revision it is built from.
# Run at every build (cmake -P), it rewrites OUTPUT only when the text changes, so a build of an
# unchanged revision recompiles nothing.
# Inputs: SOURCE_DIR, OUTPUT, VERSION.
set(revision "")
find_program(GIT git)
if(GIT)
  execute_process(COMMAND ${GIT} -C ${SOURCE_DIR} rev-parse --short=10 HEAD
    OUTPUT_VARIABLE revision OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET RESULT_VARIABLE failed)
  if(failed)
    set(revision "")
  endif()
endif()
# Semantic-version build metadata: "0.1.0+git.4fd9e56ab1"; a build from a tarball is "0.1.0".
if(revision)
  set(full "${VERSION}+git.${revision}")
else()
  set(full "${VERSION}")
endif()
set(text "// Generated at build time from the project's version and git revision.
#include \"tamsel/base/version.hpp\"

namespace tamsel::base {
std::string_view projectVersion() { return \"${VERSION}\"; }
std::string_view sourceRevision() { return \"${revision}\"; }
std::string_view appVersion() { return \"${full}\"; }
}  // namespace tamsel::base
")
set(old "")
if(EXISTS ${OUTPUT})
  file(READ ${OUTPUT} old)
endif()
if(NOT old STREQUAL text)
  file(WRITE ${OUTPUT} "${text}")
endif()
