#pragma once

#include <string>
#include <vector>

// Throwaway certificate authorities and server certificates, made with the openssl program
// in a private folder that goes with the object. Nothing is installed anywhere: a test
// trusts an authority by pointing SSL_CERT_FILE at its certificate, in its own process.
namespace cvtest {

class TestCertificates {
public:
	TestCertificates();
	~TestCertificates();
	TestCertificates(const TestCertificates &) = delete;
	TestCertificates &operator=(const TestCertificates &) = delete;

	// A self-signed authority.
	bool make_authority(const std::string &name, std::string *error);
	// A server certificate for the host name `host`, issued by the authority `issuer`;
	// an expired one ended years ago.
	bool make_server(const std::string &name, const std::string &host, const std::string &issuer, bool expired,
			 std::string *error);

	std::string certificate(const std::string &name) const { return dir_ + "/" + name + ".crt"; }
	std::string key(const std::string &name) const { return dir_ + "/" + name + ".key"; }

private:
	bool openssl(const std::vector<std::string> &arguments, std::string *error);
	std::string dir_;
};

// Sets an environment variable for as long as it lives, and then removes it.
class ScopedEnv {
public:
	ScopedEnv(const char *name, const std::string &value);
	~ScopedEnv();
	ScopedEnv(const ScopedEnv &) = delete;
	ScopedEnv &operator=(const ScopedEnv &) = delete;

private:
	const char *name_;
};

} // namespace cvtest
