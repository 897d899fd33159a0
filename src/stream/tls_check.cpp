#include "tls_check.h"

#include <gnutls/gnutls.h>
#include <gnutls/x509.h>

#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

namespace cv {

namespace {

using Outcome = CertificateCheck::Outcome;

constexpr int kPollMs = 100;

std::string errno_text(int code)
{
	return std::error_code(code, std::generic_category()).message();
}

// Waits until `fd` is ready for `events`; false once `give_up` says so.
bool wait_for(int fd, short events, const std::function<bool()> &give_up)
{
	for (;;) {
		if (give_up())
			return false;
		pollfd ready = {fd, events, 0};
		const int rc = poll(&ready, 1, kPollMs);
		// An error is the next call's to report.
		if (rc > 0 || (rc < 0 && errno != EINTR))
			return true;
	}
}

struct Socket {
	int fd = -1;
	Socket() = default;
	Socket(const Socket &) = delete;
	Socket &operator=(const Socket &) = delete;
	~Socket()
	{
		if (fd >= 0)
			close(fd);
	}
};

// A TCP connection to the first of the host's addresses that takes one, in the order the
// resolver gives them, as FFmpeg tries them. False with the reason.
bool connect_tcp(const std::string &host, int port, const std::function<bool()> &give_up, Socket *socket_out,
		 std::string *error)
{
	addrinfo hints = {};
	hints.ai_socktype = SOCK_STREAM;
	addrinfo *found = nullptr;
	const int rc = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
	if (rc != 0) {
		*error = std::string("cannot resolve the host name: ") + gai_strerror(rc);
		return false;
	}
	const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> addresses(found, freeaddrinfo);
	*error = "no address";
	for (const addrinfo *address = found; address && !give_up(); address = address->ai_next) {
		Socket candidate;
		candidate.fd = socket(address->ai_family, address->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC,
				      address->ai_protocol);
		if (candidate.fd < 0) {
			*error = errno_text(errno);
			continue;
		}
		int code = connect(candidate.fd, address->ai_addr, address->ai_addrlen) == 0 ? 0 : errno;
		if (code == EINPROGRESS) {
			if (!wait_for(candidate.fd, POLLOUT, give_up))
				break;
			socklen_t size = sizeof(code);
			if (getsockopt(candidate.fd, SOL_SOCKET, SO_ERROR, &code, &size) != 0)
				code = errno;
		}
		if (code == 0) {
			std::swap(socket_out->fd, candidate.fd);
			return true;
		}
		*error = errno_text(code);
	}
	if (give_up())
		*error = "given up";
	return false;
}

bool is_address_literal(const std::string &host)
{
	unsigned char buffer[sizeof(in6_addr)];
	return inet_pton(AF_INET, host.c_str(), buffer) == 1 || inet_pton(AF_INET6, host.c_str(), buffer) == 1;
}

// What the verification found wrong, in the words of the error shown for it.
std::string describe(unsigned status, const std::string &host)
{
	const struct {
		unsigned flag;
		std::string words;
	} known[] = {
		{GNUTLS_CERT_SIGNER_NOT_FOUND, "issued by an unknown authority"},
		{GNUTLS_CERT_SIGNER_NOT_CA, "issued by a certificate that is no authority"},
		{GNUTLS_CERT_UNEXPECTED_OWNER, "made out to another host name than " + host},
		{GNUTLS_CERT_EXPIRED, "expired"},
		{GNUTLS_CERT_NOT_ACTIVATED, "not valid yet"},
		{GNUTLS_CERT_REVOKED, "revoked"},
		{GNUTLS_CERT_INSECURE_ALGORITHM, "signed with an insecure algorithm"},
		{GNUTLS_CERT_SIGNATURE_FAILURE, "its signature does not match"},
	};
	std::string words;
	for (const auto &entry : known)
		if (status & entry.flag)
			words += (words.empty() ? "" : ", ") + entry.words;
	if (words.empty())
		words = "it does not verify (GnuTLS status " + std::to_string(status) + ")";
	return words;
}

struct Credentials {
	gnutls_certificate_credentials_t value = nullptr;
	Credentials() { gnutls_certificate_allocate_credentials(&value); }
	Credentials(const Credentials &) = delete;
	Credentials &operator=(const Credentials &) = delete;
	~Credentials() { gnutls_certificate_free_credentials(value); }
};

struct Session {
	gnutls_session_t value = nullptr;
	Session() = default;
	Session(const Session &) = delete;
	Session &operator=(const Session &) = delete;
	~Session()
	{
		if (value)
			gnutls_deinit(value);
	}
};

} // namespace

std::string trusted_authorities_file()
{
	if (const char *named = std::getenv("SSL_CERT_FILE"); named && *named)
		return named;
	// Debian and its derivatives, Fedora and its kin, openSUSE, Alpine.
	for (const char *bundle : {"/etc/ssl/certs/ca-certificates.crt", "/etc/pki/tls/certs/ca-bundle.crt",
				   "/etc/ssl/ca-bundle.pem", "/etc/ssl/cert.pem"})
		if (access(bundle, R_OK) == 0)
			return bundle;
	return {};
}

CertificateCheck check_certificate(const std::string &host, int port, const std::string &authorities,
				   const std::function<bool()> &give_up)
{
	Credentials credentials;
	if (!credentials.value)
		return {Outcome::Unreached, "out of memory"};
	if (authorities.empty() ||
	    gnutls_certificate_set_x509_trust_file(credentials.value, authorities.c_str(), GNUTLS_X509_FMT_PEM) <= 0)
		return {Outcome::Untrusted, "no trusted certificate authorities could be read" +
						    (authorities.empty() ? std::string() : " from " + authorities)};

	Socket socket;
	std::string error;
	if (!connect_tcp(host, port, give_up, &socket, &error))
		return {Outcome::Unreached, error};

	Session session;
	// A server that has gone must not end the host with SIGPIPE.
	if (gnutls_init(&session.value, GNUTLS_CLIENT | GNUTLS_NONBLOCK | GNUTLS_NO_SIGNAL) < 0 ||
	    gnutls_set_default_priority(session.value) < 0 ||
	    gnutls_credentials_set(session.value, GNUTLS_CRD_CERTIFICATE, credentials.value) < 0)
		return {Outcome::Unreached, "GnuTLS could not make a session"};
	// No name for an address literal (RFC 6066), as FFmpeg does.
	if (!is_address_literal(host))
		gnutls_server_name_set(session.value, GNUTLS_NAME_DNS, host.data(), host.size());
	// The chain and the host name are verified within the handshake, which fails when
	// they do not pass.
	gnutls_session_set_verify_cert(session.value, host.c_str(), 0);
	gnutls_transport_set_int(session.value, socket.fd);

	for (;;) {
		const int rc = gnutls_handshake(session.value);
		if (rc == GNUTLS_E_SUCCESS)
			break;
		if (rc == GNUTLS_E_CERTIFICATE_VERIFICATION_ERROR)
			return {Outcome::Untrusted,
				describe(gnutls_session_get_verify_cert_status(session.value), host)};
		if (rc == GNUTLS_E_NO_CERTIFICATE_FOUND)
			return {Outcome::Untrusted, "the server sent none"};
		if (gnutls_error_is_fatal(rc))
			return {Outcome::Unreached, std::string("TLS handshake failed: ") + gnutls_strerror(rc)};
		const bool waits = rc == GNUTLS_E_AGAIN || rc == GNUTLS_E_INTERRUPTED;
		const short events = gnutls_record_get_direction(session.value) ? POLLOUT : POLLIN;
		if (waits ? !wait_for(socket.fd, events, give_up) : give_up())
			return {Outcome::Unreached, "given up"};
	}
	// A goodbye, not waited for.
	gnutls_bye(session.value, GNUTLS_SHUT_WR);
	return {Outcome::Trusted, {}};
}

} // namespace cv
