#ifndef HTTP2CLIENT_LOG_H
#define HTTP2CLIENT_LOG_H

#include <sstream>

#include "CLogWrapper.h"

// The levels this library logs at, as CLogWrapper counts them.
constexpr int LOG_INFO = 20000;
constexpr int LOG_ERROR = 40000;

// Logs what `text` streams, with the statement's place. The text is built only when the level
// asks for it: a statement that is switched off costs one call and one comparison.
#define HTTP2CLIENT_LOG(level, text)                                                       \
    do {                                                                                   \
        if (CLogWrapper::GetLevel() < (level) + 1) {                                       \
            std::ostringstream logStream;                                                  \
            logStream << text;                                                             \
            CLogWrapper::Log((level), logStream.str(), __FILE_NAME__, __PRETTY_FUNCTION__, \
                             __LINE__);                                                    \
        }                                                                                  \
    } while (false)

#define HTTP2CLIENT_LOG_INFO(text) HTTP2CLIENT_LOG(LOG_INFO, text)
#define HTTP2CLIENT_LOG_ERROR(text) HTTP2CLIENT_LOG(LOG_ERROR, text)

#endif  // HTTP2CLIENT_LOG_H
