// Bound methods: how an array of values reaches a member function with typed arguments.
#pragma once

#include <cstdio>
#include <tuple>
#include <type_traits>
#include <utility>

#include <boost/smart_ptr/shared_ptr.hpp>

#include <binding/kxfunctorconvert.hpp>
#include <kxcommon/kxfunctorbase.hpp>
#include <kxvalue/kxvalue.hpp>

namespace KX {
namespace detail {

/// A bound method for callers of this process that know its types: no value is made or converted.
template <class R, class... P>
class KXTypedFunctor : public KXFunctorBase {
 public:
  virtual R invoke(P const&... arguments) = 0;
};

/// A member function bound to its object; `Member` is the pointer's type, P the parameters without
/// const and reference. Threads: no state, so calls may overlap.
template <class Member, class T, class R, class... P>
class KXBoundFunctor : public KXTypedFunctor<R, P...> {
 public:
  KXBoundFunctor(T* object, Member member) : mObject(object), mMember(member) {}

  void call(KXValue const& params, KXValue& result) override {
    xCall(params, result, std::index_sequence_for<P...>());
  }
  R invoke(P const&... arguments) override { return (mObject->*mMember)(arguments...); }

 private:
  template <std::size_t... I>
  void xCall([[maybe_unused]] KXValue const& params, [[maybe_unused]] KXValue& result,
             std::index_sequence<I...>) {
    // In braces, so the arguments are converted from first to last.
    std::tuple<P...> arguments{converter<P>::convertFromKXValue(params[static_cast<int>(I)])...};
    if constexpr (std::is_void_v<R>) {
      (mObject->*mMember)(std::get<I>(arguments)...);
    } else if constexpr (std::is_same_v<R, KXValue>) {
      KXValue const returned = (mObject->*mMember)(std::get<I>(arguments)...);
      // On purpose: whoever receives data also finds what the module wrote to its streams before.
      std::fflush(nullptr);
      result = returned;
    } else {
      result = KXValue((mObject->*mMember)(std::get<I>(arguments)...));
    }
  }

  T* const mObject;
  Member const mMember;
};

template <class T, class R>
class KXFunctor_0 : public KXBoundFunctor<R (T::*)(), T, R> {
 public:
  using KXBoundFunctor<R (T::*)(), T, R>::KXBoundFunctor;
};

template <class T, class P1, class R>
class KXFunctor_1 : public KXBoundFunctor<R (T::*)(P1 const&), T, R, P1> {
 public:
  using KXBoundFunctor<R (T::*)(P1 const&), T, R, P1>::KXBoundFunctor;
};

template <class T, class P1, class P2, class R>
class KXFunctor_2 : public KXBoundFunctor<R (T::*)(P1 const&, P2 const&), T, R, P1, P2> {
 public:
  using KXBoundFunctor<R (T::*)(P1 const&, P2 const&), T, R, P1, P2>::KXBoundFunctor;
};

template <class T, class P1, class P2, class P3, class R>
class KXFunctor_3
    : public KXBoundFunctor<R (T::*)(P1 const&, P2 const&, P3 const&), T, R, P1, P2, P3> {
 public:
  using KXBoundFunctor<R (T::*)(P1 const&, P2 const&, P3 const&), T, R, P1, P2, P3>::KXBoundFunctor;
};

/// The object as the class that has the member.
template <class Owner, class T>
Owner* asOwner(T* object) {
  static_assert(
      std::is_convertible_v<T*, Owner*>,
      "the object is not known to be of the member's class: a base class that binds members of the "
      "classes derived from it takes the object too, or casts: static_cast<Derived*>(this)");
  return object;
}

/// Binds a member function. The object may be of a class derived from the member's. The functor
/// keeps the plain pointer: it must not outlive the object.
template <class T, class C, class R>
boost::shared_ptr<KXFunctorBase> createFunctor(T* object, R (C::*member)()) {
  return boost::shared_ptr<KXFunctorBase>(new KXFunctor_0<C, R>(asOwner<C>(object), member));
}
template <class T, class C, class R, class P1>
boost::shared_ptr<KXFunctorBase> createFunctor(T* object, R (C::*member)(P1 const&)) {
  return boost::shared_ptr<KXFunctorBase>(new KXFunctor_1<C, P1, R>(asOwner<C>(object), member));
}
template <class T, class C, class R, class P1, class P2>
boost::shared_ptr<KXFunctorBase> createFunctor(T* object, R (C::*member)(P1 const&, P2 const&)) {
  return boost::shared_ptr<KXFunctorBase>(
      new KXFunctor_2<C, P1, P2, R>(asOwner<C>(object), member));
}
template <class T, class C, class R, class P1, class P2, class P3>
boost::shared_ptr<KXFunctorBase> createFunctor(T* object,
                                               R (C::*member)(P1 const&, P2 const&, P3 const&)) {
  return boost::shared_ptr<KXFunctorBase>(
      new KXFunctor_3<C, P1, P2, P3, R>(asOwner<C>(object), member));
}
/// The other shapes: more parameters, parameters by value, const members.
template <class T, class C, class R, class... P>
boost::shared_ptr<KXFunctorBase> createFunctor(T* object, R (C::*member)(P...)) {
  return boost::shared_ptr<KXFunctorBase>(
      new KXBoundFunctor<R (C::*)(P...), C, R, std::remove_cvref_t<P>...>(asOwner<C>(object),
                                                                          member));
}
template <class T, class C, class R, class... P>
boost::shared_ptr<KXFunctorBase> createFunctor(T* object, R (C::*member)(P...) const) {
  return boost::shared_ptr<KXFunctorBase>(
      new KXBoundFunctor<R (C::*)(P...) const, C const, R, std::remove_cvref_t<P>...>(
          asOwner<C const>(object), member));
}

}  // namespace detail

using detail::createFunctor;

}  // namespace KX
