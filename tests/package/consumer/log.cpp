// An application that sets the threshold of the library's log.

#include <CLogWrapper/CLogWrapper.h>

int main() {
    CLogWrapper::SetLevel(60000);
    return CLogWrapper::GetLevel() == 60000 ? 0 : 1;
}
