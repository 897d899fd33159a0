#include "certificates.h"

#include "process.h"

#include <cstdlib>
#include <filesystem>
#include <vector>

namespace cvtest {

namespace {

// openssl's "ca" command, the one that takes any validity dates, keeps its books here.
constexpr const char *kConfig = "[ca]\ndefault_ca = test\n"
				"[test]\ndatabase = index.txt\nserial = serial\nnew_certs_dir = .\n"
				"default_md = sha256\npolicy = any\nunique_subject = no\n"
				"[any]\ncommonName = supplied\n"
				"[req]\ndistinguished_name = dn\n[dn]\n"
				"[authority]\nbasicConstraints = critical,CA:TRUE\n"
				"keyUsage = critical,keyCertSign,cRLSign\n";

} // namespace

TestCertificates::TestCertificates() : dir_(make_temp_dir("cv-certs-"))
{
	write_file(dir_ + "/openssl.cnf", kConfig);
	write_file(dir_ + "/index.txt", "");
	write_file(dir_ + "/serial", "1000\n");
}

TestCertificates::~TestCertificates()
{
	if (!dir_.empty())
		std::filesystem::remove_all(dir_);
}

bool TestCertificates::openssl(const std::vector<std::string> &arguments, std::string *error)
{
	// Relative names in the configuration are the folder's.
	std::vector<std::string> argv = {"sh", "-c", "cd \"$0\" && exec openssl \"$@\"", dir_};
	argv.insert(argv.end(), arguments.begin(), arguments.end());
	std::string output;
	if (run_program(argv, 30000, &output) == 0)
		return true;
	*error = "openssl " + arguments.at(0) + ": " + output;
	return false;
}

bool TestCertificates::make_authority(const std::string &name, std::string *error)
{
	return openssl({"req", "-x509", "-config", "openssl.cnf", "-extensions", "authority", "-newkey", "ec",
			"-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-keyout", key(name), "-out",
			certificate(name), "-subj", "/CN=" + name, "-days", "3650"},
		       error);
}

bool TestCertificates::make_server(const std::string &name, const std::string &host, const std::string &issuer,
				   bool expired, std::string *error)
{
	const std::string request = dir_ + "/" + name + ".csr";
	const std::string extensions = dir_ + "/" + name + ".ext";
	write_file(extensions, "basicConstraints = CA:FALSE\nsubjectAltName = DNS:" + host + "\n");
	return openssl({"req", "-new", "-config", "openssl.cnf", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
			"-nodes", "-keyout", key(name), "-out", request, "-subj", "/CN=" + host},
		       error) &&
	       openssl({"ca", "-batch", "-config", "openssl.cnf", "-notext", "-cert", certificate(issuer), "-keyfile",
			key(issuer), "-in", request, "-out", certificate(name), "-extfile", extensions, "-startdate",
			"20200101000000Z", "-enddate", expired ? "20210101000000Z" : "20991231000000Z"},
		       error);
}

ScopedEnv::ScopedEnv(const char *name, const std::string &value) : name_(name)
{
	setenv(name, value.c_str(), 1);
}

ScopedEnv::~ScopedEnv()
{
	unsetenv(name_);
}

} // namespace cvtest
