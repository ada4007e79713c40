#ifndef HTTP2CLIENT_TESTS_PACKAGE_OTHER_LOG_CLOGWRAPPER_H
#define HTTP2CLIENT_TESTS_PACKAGE_OTHER_LOG_CLOGWRAPPER_H

#include <string>

// A CLogWrapper that an application has already: the two operations, and no more.
class __attribute__((visibility("default"))) CLogWrapper {
public:
    static int GetLevel();
    static void Log(int level, const std::string& message, const char* file, const char* function,
                    int line);
};

#endif  // HTTP2CLIENT_TESTS_PACKAGE_OTHER_LOG_CLOGWRAPPER_H
