// The counts of the operator new and delete that stand in kxvalue_allocation_test.cpp.
#pragma once

namespace KX {

/// By the calling thread alone, so that nothing but the test's own work is counted.
long allocationsOfThisThread();
/// Allocations of all threads that were not freed yet.
long liveAllocations();

}  // namespace KX
