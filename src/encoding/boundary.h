// The boundaries between the parts of a message.
#ifndef LARKPOST_ENCODING_BOUNDARY_H
#define LARKPOST_ENCODING_BOUNDARY_H

#include <cstdint>
#include <string>

namespace larkpost::detail {

// "--=-MessageBoundary_<n>_<timer digits>", n counting 1..32766 per thread.
std::u16string MakeBoundary();
// The timer text of a boundary: seven significant digits, no exponent, "." removed.
std::u16string TimerText(float seconds);
// Test seam: the counter of this thread.
void SetBoundaryCounterForTesting(int16_t value);
int16_t BoundaryCounterForTesting();

}  // namespace larkpost::detail

#endif
