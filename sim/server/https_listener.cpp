#include "sim/server/https_listener.h"

#include <fcntl.h>
#include <httplib.h>
#include <openssl/ec.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <set>
#include <stdexcept>
#include <thread>
#include <utility>

#include "knihovny/mutex.h"
#include "sim/server/local_port.h"

namespace sim {

// ---------------------------------------------------------------------------------------------------------------
// Certificate

struct Certificate::Parts {
    EVP_PKEY* key = nullptr;
    X509* certificate = nullptr;
    ~Parts() {
        X509_free(certificate);
        EVP_PKEY_free(key);
    }
};

namespace {

void addAlternativeNames(X509* certificate) {
    X509_EXTENSION* names =
        X509V3_EXT_conf_nid(nullptr, nullptr, NID_subject_alt_name, "IP:127.0.0.1,DNS:localhost");
    if (!names) throw std::runtime_error("certificate: names");
    X509_add_ext(certificate, names, -1);
    X509_EXTENSION_free(names);
}

}  // namespace

Certificate::Certificate() : parts_(std::make_unique<Parts>()) {
    parts_->key = EVP_EC_gen("P-256");
    parts_->certificate = X509_new();
    if (!parts_->key || !parts_->certificate) throw std::runtime_error("certificate: out of memory");
    X509* certificate = parts_->certificate;
    X509_set_version(certificate, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), 1);
    ASN1_TIME_set_string_X509(X509_getm_notBefore(certificate), "20000101000000Z");
    ASN1_TIME_set_string_X509(X509_getm_notAfter(certificate), "20491231235959Z");
    X509_set_pubkey(certificate, parts_->key);
    X509_NAME* name = X509_get_subject_name(certificate);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("127.0.0.1"),
                               -1, -1, 0);
    X509_set_issuer_name(certificate, name);
    addAlternativeNames(certificate);
    if (X509_sign(certificate, parts_->key, EVP_sha256()) == 0) {
        throw std::runtime_error("certificate: cannot be signed");
    }
}

Certificate::~Certificate() = default;

// ---------------------------------------------------------------------------------------------------------------
// Connections. The HTTP library tells nothing of its connections, so they are followed through the TLS
// library: one begins when its handshake begins and ends when its SSL object is freed, which is before its
// descriptor is closed.

namespace {

class Connections {
  public:
    void watch(SSL_CTX* context);
    void endAll() EXCLUDES(mutex_);
    bool ending() const { return ending_; }
    uint64_t count() const { return count_; }
    static uint64_t number(const SSL* ssl);

  private:
    struct Connection {
        Connections* owner;
        uint64_t number;
        int socket;
    };

    static int connectionIndex();
    static int ownerIndex();
    static void handshake(const SSL* ssl, int where, int result);
    static void freed(void* parent, void* pointer, CRYPTO_EX_DATA*, int, long, void*);
    void add(SSL* ssl) EXCLUDES(mutex_);
    void remove(Connection* connection) EXCLUDES(mutex_);

    Mutex mutex_;
    std::set<Connection*> connections_ GUARDED_BY(mutex_);
    std::atomic<uint64_t> count_{0};
    std::atomic<bool> ending_{false};
};

int Connections::connectionIndex() {
    static const int index = SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, freed);
    return index;
}

int Connections::ownerIndex() {
    static const int index = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
    return index;
}

void Connections::watch(SSL_CTX* context) {
    connectionIndex();
    SSL_CTX_set_ex_data(context, ownerIndex(), this);
    SSL_CTX_set_info_callback(context, handshake);
}

void Connections::handshake(const SSL* ssl, int where, int /*result*/) {
    if ((where & SSL_CB_HANDSHAKE_START) == 0 || SSL_get_ex_data(ssl, connectionIndex())) return;
    auto* owner = static_cast<Connections*>(SSL_CTX_get_ex_data(SSL_get_SSL_CTX(ssl), ownerIndex()));
    owner->add(const_cast<SSL*>(ssl));
}

void Connections::add(SSL* ssl) {
    auto* connection = new Connection{this, ++count_, SSL_get_fd(ssl)};
    SSL_set_ex_data(ssl, connectionIndex(), connection);
    MutexLock lock(mutex_);
    connections_.insert(connection);
    if (ending_) shutdown(connection->socket, SHUT_RDWR);
}

void Connections::remove(Connection* connection) {
    {
        MutexLock lock(mutex_);
        connections_.erase(connection);
    }
    delete connection;
}

void Connections::freed(void* /*parent*/, void* pointer, CRYPTO_EX_DATA*, int, long, void*) {
    auto* connection = static_cast<Connection*>(pointer);
    if (connection) connection->owner->remove(connection);
}

void Connections::endAll() {
    MutexLock lock(mutex_);
    ending_ = true;
    for (const Connection* connection : connections_) shutdown(connection->socket, SHUT_RDWR);
}

uint64_t Connections::number(const SSL* ssl) {
    const auto* connection = static_cast<const Connection*>(SSL_get_ex_data(ssl, connectionIndex()));
    return connection ? connection->number : 0;
}

}  // namespace

// ---------------------------------------------------------------------------------------------------------------
// Listener

struct HttpsListener::Impl {
    Connections connections;  // outlives the server and its connections
    httplib::SSLServer server;
    std::thread thread;

    explicit Impl(const Certificate::Parts& parts) : server(parts.certificate, parts.key) {}
};

HttpsListener::HttpsListener(const Certificate& certificate, int port, Handler handler)
    : impl_(std::make_unique<Impl>(*certificate.parts_)) {
    httplib::SSLServer& server = impl_->server;
    if (!server.is_valid()) throw std::runtime_error("HTTPS server: the certificate is refused");
    impl_->connections.watch(server.ssl_context());
    server.new_task_queue = [] { return new httplib::ThreadPool(16); };
    server.set_keep_alive_timeout(600);
    server.set_keep_alive_max_count(1000000);
    server.set_tcp_nodelay(true);
    // Not the library's SO_REUSEPORT, which would let two servers share the port unnoticed.
    server.set_socket_options([](socket_t socket) {
        const int on = 1;
        setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    });
    const auto serve = [this, handler = std::move(handler)](const httplib::Request& request,
                                                            httplib::Response& response) {
        handler(*this, request, response);
    };
    server.Get(".*", serve);
    server.Post(".*", serve);
    if (!server.bind_to_port("127.0.0.1", port)) {
        throw std::runtime_error("port " + std::to_string(port) + ": " + strerror(errno));
    }
    impl_->thread = std::thread([&server] { server.listen_after_bind(); });
    // The library forgets a stop request that comes before it listens.
    while (!server.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

HttpsListener::~HttpsListener() {
    // The listening socket first: a connection that comes after the others were ended would not be ended.
    impl_->server.stop();
    impl_->connections.endAll();
    impl_->thread.join();
}

uint64_t HttpsListener::connections() const {
    return impl_->connections.count();
}

uint64_t HttpsListener::connectionNumber(const httplib::Request& request) {
    return Connections::number(request.ssl);
}

int HttpsListener::socketOf(const httplib::Request& request) {
    return SSL_get_fd(request.ssl);
}

bool HttpsListener::pause(const httplib::Request& request, double seconds) const {
    using Clock = std::chrono::steady_clock;
    const auto begin = Clock::now();
    for (;;) {
        const double left = seconds - std::chrono::duration<double>(Clock::now() - begin).count();
        if (impl_->connections.ending()) return false;
        if (left <= 0) return true;
        pollfd peer{socketOf(request), POLLRDHUP, 0};
        const int step = static_cast<int>(std::min(left * 1000 + 1, 20.0));
        if (poll(&peer, 1, step) > 0) return false;
    }
}

void HttpsListener::reset(const httplib::Request& request) {
    // The library ends its connections in good order only, so another file is put into the place of the
    // socket.
    const int socket = socketOf(request);
    const Descriptor nothing(open("/dev/null", O_RDWR | O_CLOEXEC));
    resetOnClose(socket);
    dup3(nothing.get(), socket, O_CLOEXEC);
}

}  // namespace sim
