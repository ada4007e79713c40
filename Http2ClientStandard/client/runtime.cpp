#include "Http2ClientStandard/client/runtime.h"

namespace h2 {

Runtime& Runtime::get() {
    static Runtime* const runtime = new Runtime;
    return *runtime;
}

}  // namespace h2
