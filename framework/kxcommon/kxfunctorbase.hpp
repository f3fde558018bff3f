// What a published method is to the dispatcher: something that takes an array of arguments.
#pragma once

#include <kxerror/kxapi.hpp>
#include <kxvalue/kxvalue.hpp>

namespace KX {

/// A bound method. Ownership: shared by the method's description; holds its module by plain
/// pointer, so whoever calls keeps the module alive. Threads: calls may overlap.
class KX_API KXFunctorBase {
 public:
  virtual ~KXFunctorBase();

  /// Calls with an array of arguments. `result` is left as it is by methods that return nothing.
  /// Throws KXError if an argument cannot be converted, and whatever the method throws.
  virtual void call(KXValue const& params, KXValue& result) = 0;
};

}  // namespace KX
