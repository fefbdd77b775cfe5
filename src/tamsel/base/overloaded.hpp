#pragma once
// Visits a variant with one lambda per case: std::visit(base::Overloaded{[](const A&) {...}, ...}).

namespace tamsel::base {

template <class... F>
struct Overloaded : F... {
  using F::operator()...;
};
template <class... F>
Overloaded(F...) -> Overloaded<F...>;

}  // namespace tamsel::base
