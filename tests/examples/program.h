#ifndef HTTP2CLIENT_TESTS_EXAMPLES_PROGRAM_H
#define HTTP2CLIENT_TESTS_EXAMPLES_PROGRAM_H

#include <string>
#include <vector>

namespace h2test {

// What an example that has ended leaves behind.
struct Ended {
    int code = -1;       // its exit code; 1000 and more: a signal's number; -1: it had to be killed
    std::string output;  // standard output
    std::string errors;  // standard error
};

enum class Edition { kExact, kStandard };

// Runs the example `name` to its end. `edition`: which library it is linked with; those that need
// the standard edition have no other.
Ended runExample(Edition edition, const std::string& name,
                 const std::vector<std::string>& arguments);
Ended runStandardExample(const std::string& name, const std::vector<std::string>& arguments);

std::string fileContent(const std::string& path);

}  // namespace h2test

#endif  // HTTP2CLIENT_TESTS_EXAMPLES_PROGRAM_H
