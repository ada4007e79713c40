#include "CLogWrapper.h"

#include <stdio.h>

int CLogWrapper::GetLevel() { return 20000; }

void CLogWrapper::Log(int level, const std::string&, const char* file, const char*, int) {
    printf("other log: %d %s\n", level, file);
}
