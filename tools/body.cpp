#include "body.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "interrupt.h"
#include "message.h"

namespace {

bool complainOf(const std::string& what, int error, const char* advice) {
    complain(what + ": " + std::strerror(error) + "; " + advice);
    return false;
}

// As read, but Ctrl-C ends the wait with EINTR.
ssize_t readSome(int fd, char* buf, size_t len) {
    if (waitReady(fd, POLLIN, isInterrupted)) return ::read(fd, buf, len);
    errno = EINTR;
    return -1;
}

// A new file without a name, gone when it is closed; -1 and errno when there can be none.
int temporaryFile() {
    FILE* file = std::tmpfile();
    if (file == nullptr) return -1;
    const int fd = fcntl(fileno(file), F_DUPFD_CLOEXEC, 0);
    const int error = errno;
    std::fclose(file);
    errno = error;
    return fd;
}

}  // namespace

BodySource::~BodySource() {
    if (m_file != -1) close(m_file);
}

bool BodySource::open(const Options& options) {
    if (options.data) {
        m_exists = true;
        m_text = *options.data;
        m_size = m_text.size();
    }
    if (!options.dataFile) return true;
    m_exists = true;
    if (*options.dataFile == "-") return spool(STDIN_FILENO, "standard input");
    return openFile(*options.dataFile);
}

bool BodySource::openFile(const std::string& name) {
    const int fd = ::open(name.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd == -1 && isInterrupted()) return false;  // while it waited for the other end of a pipe
    if (fd == -1) return complainOf("cannot read " + name, errno, "check --data-file");
    struct stat status {};
    if (fstat(fd, &status) == 0 && S_ISREG(status.st_mode)) {
        m_file = fd;
        m_size = static_cast<uint64_t>(status.st_size);
        return true;
    }
    const bool ok = spool(fd, name);
    close(fd);
    return ok;
}

bool BodySource::spool(int from, const std::string& name) {
    m_file = temporaryFile();
    if (m_file == -1) return complainOf("cannot keep " + name, errno, "make room in /tmp");
    static std::array<char, 65536> buffer;
    while (true) {
        const ssize_t n = readSome(from, buffer.data(), buffer.size());
        if (n < 0 && isInterrupted()) return false;
        if (n < 0) return complainOf("cannot read " + name, errno, "check --data-file");
        if (n == 0) return true;
        if (writeWhole(m_file, buffer.data(), static_cast<size_t>(n)) != 0) {
            return complainOf("cannot keep " + name, errno, "make room in /tmp");
        }
        m_size += static_cast<uint64_t>(n);
    }
}

int64_t BodySource::readAt(uint64_t offset, char* buf, size_t len) const {
    if (m_file == -1) return static_cast<int64_t>(m_text.copy(buf, len, offset));
    size_t done = 0;
    while (done < len) {
        const ssize_t n = pread(m_file, buf + done, len - done, static_cast<off_t>(offset + done));
        if (n == 0) break;
        if (n > 0) {
            done += static_cast<size_t>(n);
        } else if (errno != EINTR) {
            return -1;
        }
    }
    return static_cast<int64_t>(done);
}

int BodyReader::read(char* buf, size_t len, void* opaque) {
    auto* reader = static_cast<BodyReader*>(opaque);
    const size_t n = reader->take(buf, len);
    reader->m_offset += n;
    return static_cast<int>(n);
}

size_t BodyReader::take(char* buf, size_t len) {
    if (m_error == 0) {
        const int64_t n = m_source.readAt(m_offset, buf, len);
        if (n >= 0) return static_cast<size_t>(n);
        m_error = errno;
    }
    std::fill(buf, buf + len, '\0');
    return len;
}
