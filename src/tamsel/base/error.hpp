#pragma once
// One shape for every error the application throws: the family it belongs to (category), the
// closed case within that family (code, a stable snake_case name), and the message a person
// reads. Callers decide on category and code, never on the message, which may change wording.
//
// A family is a value type with a variant of cases; ErrorOf<Family> throws it with its case
// kept, so a caller that knows the family reads the case's details through error().
// A family provides:
//   static constexpr std::string_view category;
//   std::string code() const;         // the case's name
//   std::string description() const;  // the message
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

namespace tamsel::base {

class Error : public std::runtime_error {
 public:
  Error(std::string_view category, std::string code, const std::string& message)
      : std::runtime_error(message), category_(category), code_(std::move(code)) {}
  std::string_view category() const { return category_; }
  const std::string& code() const { return code_; }
  // Whether this is the case `code` of the family `category`.
  bool is(std::string_view category, std::string_view code) const {
    return category_ == category && code_ == code;
  }

 private:
  std::string_view category_;  // a family's constant
  std::string code_;
};

template <class Family>
class ErrorOf : public Error {
 public:
  explicit ErrorOf(Family error)
      : Error(Family::category, error.code(), error.description()), error_(std::move(error)) {}
  const Family& error() const { return error_; }

 private:
  Family error_;
};

// The name of the case a variant holds, from a table in the order of the variant's types.
template <class Variant, std::size_t N>
std::string caseName(const Variant& value, const char* const (&names)[N]) {
  static_assert(std::variant_size_v<Variant> == N, "one name per case");
  return names[value.index()];
}

}  // namespace tamsel::base
