#ifndef HTTP2CLIENTSTANDARD_POOL_SERVING_H
#define HTTP2CLIENTSTANDARD_POOL_SERVING_H

#include <utility>

namespace h2 {

class Connection;

// The connection that the calling thread is serving, if any: what is put into its inbox is looked
// at before the turn ends.
class Serving {
public:
    explicit Serving(const Connection* connection)
        : m_former(std::exchange(current(), connection)) {}
    ~Serving() { current() = m_former; }
    Serving(const Serving&) = delete;
    Serving& operator=(const Serving&) = delete;

    static bool here(const Connection* connection) { return current() == connection; }

private:
    static const Connection*& current() {
        static thread_local const Connection* connection = nullptr;
        return connection;
    }

    const Connection* m_former;
};

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_POOL_SERVING_H
