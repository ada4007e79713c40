#ifndef HTTP2CLIENT_TESTS_STANDARD_PROCESS_INTERPOSED_H
#define HTTP2CLIENT_TESTS_STANDARD_PROCESS_INTERPOSED_H

#include <cstddef>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// Functions of the system that this program defines itself, so that the library's calls come here.
namespace h2test {

// What the calling thread has asked of operator new.
struct Allocations {
    size_t calls = 0;
    size_t bytes = 0;
};
Allocations allocationsOfThisThread();
// Lets every further operator new of the calling thread throw std::bad_alloc.
void failAllocationsOfThisThread();
// Lets one throw: that behind the next `count`. Returns what was left of a former count; -1: it has
// thrown.
long failAllocationOfThisThreadBehind(long count);

// Whether `data` lies in what the last recv() of the calling thread has received.
bool liesInLastReceived(const char* data, size_t size);

// Host names, their addresses, and who looked them up. Other names go to the system.
struct Names {
    std::mutex lock;  // guards what follows
    // No addresses: the look-up fails for the moment.
    std::map<std::string, std::vector<std::string>> addresses;
    std::vector<std::thread::id> lookUps;  // of these names, a thread each

    static Names& get();
    void set(const std::string& name, std::vector<std::string> addresses);
    std::vector<std::thread::id> takeLookUps();
};

}  // namespace h2test

#endif  // HTTP2CLIENT_TESTS_STANDARD_PROCESS_INTERPOSED_H
