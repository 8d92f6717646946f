// A value or the reason there is none.
//
// Parsers of outside bytes return Result<T, Reason>: the entry point that receives it is the
// one place that counts and traces the reason.
#pragma once

#include <utility>
#include <variant>

#include "host/fwk/Assert.h"

namespace Ovk {

template <class E>
struct Failure {
   E reason;
};
template <class E>
Failure<E> failure(E reason) {
   return Failure<E>{std::move(reason)};
}

template <class T, class E>
class [[nodiscard]] Result {
 public:
   Result(T value) : v_(std::in_place_index<0>, std::move(value)) {}         // NOLINT
   Result(Failure<E> f) : v_(std::in_place_index<1>, std::move(f.reason)) {} // NOLINT

   bool ok() const { return v_.index() == 0; }
   explicit operator bool() const { return ok(); }
   T& value() {
      OVK_ASSERT(ok());
      return std::get<0>(v_);
   }
   T const& value() const {
      OVK_ASSERT(ok());
      return std::get<0>(v_);
   }
   E const& reason() const {
      OVK_ASSERT(!ok());
      return std::get<1>(v_);
   }

 private:
   std::variant<T, E> v_;
};

} // namespace Ovk
