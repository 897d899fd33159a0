#pragma once

// Whether a TLS server may be trusted with the stream key: its certificate chain must lead
// to one of the system's trusted certificate authorities and the certificate must name the
// host. Checked on a connection of its own, before the stream's connection is made, so that
// the reason can be told: FFmpeg only says that its connection failed.

#include <functional>
#include <string>

namespace cv {

struct CertificateCheck {
	enum class Outcome {
		Trusted,
		Untrusted, // the handshake got as far as the certificate, which failed
		Unreached, // no connection or no TLS handshake; nothing is known of a certificate
	};
	Outcome outcome = Outcome::Unreached;
	// Untrusted: what is wrong with the certificate ("expired"); Unreached: why.
	std::string detail;
};

// The file of trusted certificate authorities: the one SSL_CERT_FILE names, as for
// OpenSSL's programs, or else the distribution's bundle. Empty when there is none.
std::string trusted_authorities_file();

// Connects to `host` (a name or an address literal) on `port`, makes a TLS handshake that
// sends the host name (SNI) and checks the certificate against `authorities` and the host
// name, and closes: nothing else is sent. Blocks the calling thread, asking `give_up` at
// least every 100 ms (the name lookup aside).
CertificateCheck check_certificate(const std::string &host, int port, const std::string &authorities,
				   const std::function<bool()> &give_up);

} // namespace cv
