#include "agent/rpc/rpc_io.h"

#include "qmrt/log.h"

#include <exception>
#include <poll.h>
#include <pthread.h>

bool is_gone(boost::asio::detail::socket_type socket, bool ends_with_its_sending) {
    // poll() tells of both ends' end without being asked
    pollfd entry = {socket, static_cast<short>(ends_with_its_sending ? POLLRDHUP : 0), 0};
    return poll(&entry, 1, 0) == 1;
}

void Rpc_Io::start() {
    thread_ = std::thread([this] {
        pthread_setname_np(pthread_self(), "rpc-io");
        while (true) {
            try {
                context.run();
                return;
            } catch (std::exception const& error) {
                // one connection's trouble, memory above all, is not the others'
                QMRT_LOG(LM_ERROR, "Failed to serve a connection, %s\n", error.what());
            }
        }
    });
}

void Rpc_Io::finish() {
    guard_.reset();
    if (thread_.joinable())
        thread_.join();
    // another thread may hold a connection for a moment more, and may have left work for it
    do {
        context.restart();
        context.poll();
        std::this_thread::yield();
    } while (lease_.use_count() > 1);
}
