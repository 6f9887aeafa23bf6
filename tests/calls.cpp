// The export table of calls.h, in one translation unit: its invokers are one template instantiation per export.
#include "calls.h"

namespace omkt {

const std::vector<Export>& exportTable() {
#define SWEEP_EXPORT(fn, params) Export{#fn, invokerOf(&fn), params},
#define SWEEP_OTHER(fn) Export{#fn, Invoker{}, ""},
    static const std::vector<Export> table = {
#include "sweep_calls.inc"
    };
#undef SWEEP_EXPORT
#undef SWEEP_OTHER
    return table;
}

}  // namespace omkt
