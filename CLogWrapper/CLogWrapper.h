#ifndef CLOGWRAPPER_CLOGWRAPPER_H
#define CLOGWRAPPER_CLOGWRAPPER_H

#include <string>

// The process's log, as Http2Client writes it: one threshold, one line a message on standard
// error.
//
// This is a stand-in. An application that has a CLogWrapper of its own, with the operations
// GetLevel and Log under the same names, puts its library in the place of this one.
//
// Levels are integers, the higher the graver; 20000 is information and 40000 an error. (Also
// named in the output: 0 TRACE, 10000 DEBUG, 30000 WARN, 50000 FATAL; any other is UNKNOWN.)
//
// It is built on log4cplus, and ends the thread pool that log4cplus starts: an application that
// uses log4cplus besides keeps its loggers, appenders and configuration to itself, but can have no
// appender with AsyncAppend.
//
// Every operation may be called from any thread at any time, also from static constructors and
// destructors. None throws. No configuration file and no environment variable is read.
class __attribute__((visibility("default"))) CLogWrapper {
public:
    // The threshold: messages of this level and above are written. 40000 at the start.
    // It costs one load, so that a caller can ask before it puts a message together:
    //     if (CLogWrapper::GetLevel() <= level) CLogWrapper::Log(level, text(), ...);
    static int GetLevel();

    // Changes the threshold for the whole process. Any value is accepted; one above 50000 silences
    // Http2Client wholly.
    static void SetLevel(int level);

    // Writes one line to standard error (file descriptor 2, in one write):
    //     2024-05-01 12:34:56.789 ERROR Http2.cpp:42 void f(int): the message
    // Nothing is written when `level` is below the threshold. `file` and `function` are copied
    // before the call returns and may be null, which prints "?"; of `file` only what follows the
    // last '/' is printed. Control bytes appear as \n, \r, \t or \x1b, so a message never takes
    // more than one line. errno is left as it was.
    static void Log(int level, const std::string& message, const char* file, const char* function,
                    int line);
};

#endif  // CLOGWRAPPER_CLOGWRAPPER_H
