#include "nginx_server.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>

#include "tests/support/loopback.h"

namespace test
{

namespace
{

/* The folder of the modules, which nginx names among its build options. */
std::string ModulesFolder(const std::string &description)
{
    const std::string option = "--modules-path=";
    const size_t begin = description.find(option);
    if (begin == std::string::npos) {
        return std::string();
    }
    const size_t end = description.find_first_of(" \n", begin);
    return description.substr(begin + option.size(), end - begin - option.size());
}

/* Started by root, nginx would give its worker to another user, who could not enter the folder. */
std::string KeepUser()
{
    const passwd *entry = geteuid() == 0 ? getpwuid(0) : nullptr;
    return entry == nullptr ? std::string() : "user " + std::string(entry->pw_name) + ";\n";
}

const char *const CERTIFICATE_REQUEST = R"([req]
distinguished_name = name
x509_extensions = server
prompt = no
[name]
CN = 127.0.0.1
[server]
subjectAltName = IP:127.0.0.1,DNS:https.localhost
)";

const char *const SETTINGS = R"(daemon off;
worker_processes 1;
pid nginx.pid;
error_log error.log info;
events { worker_connections 4096; }
http {
  log_format line "$scheme $request_uri";
  access_log access.log line;
  default_type application/json;
  client_body_temp_path body;
  proxy_temp_path proxy;
  fastcgi_temp_path fastcgi;
  uwsgi_temp_path uwsgi;
  scgi_temp_path scgi;
  client_max_body_size 16m;
  client_body_buffer_size 16m;
  keepalive_requests 1000000;
)";

const char *const LOCATIONS = R"(    ssl_certificate certificate.pem;
    ssl_certificate_key key.pem;
    location /ready { return 200 ready; }
    location /echo { echo_read_request_body; echo_request_body; }
    location /late { echo_sleep 0.3; echo -n ok; }
    location /pieces { echo -n one; echo_flush; echo_sleep 0.1; echo -n two; echo_flush;
                       echo_sleep 0.1; echo -n three; }
    # A POST gets the file, too.
    location /files/ { error_page 405 =200 $uri; }
    location /auth { auth_basic recorder; auth_basic_user_file passwords;
                     echo_read_request_body; echo_request_body; }
    location /status/404 { return 404 "nothing here, says the server"; }
    location /status/500 { return 500 "broken, says the server"; }
)";

} // namespace

NginxServer::NginxServer()
{
    const std::string program = NVRHTTP_NGINX;
    if (program.empty() || std::string(NVRHTTP_OPENSSL).empty()) {
        problem = "no nginx or no openssl was found when the build was configured";
        return;
    }
    const Finished description = RunProgram({{program, "-V"}});
    if (description.status != 0) {
        problem = "nginx -V failed";
        return;
    }
    if (!MakeCertificate()) {
        return;
    }
    /* The sockets are ours and nginx inherits them, so no other process can get between. */
    const std::vector<int> sockets = {BindLoopback(&plainPort), BindLoopback(&tlsPort), BindLoopback(&http2Port)};
    if (std::all_of(sockets.begin(), sockets.end(), [](int fd) { return listen(fd, SOMAXCONN) == 0; })) {
        WriteConfiguration(ModulesFolder(description.errors));
        Launch(sockets);
    } else {
        problem = "no free loopback ports";
    }
    for (int fd : sockets) {
        close(fd);
    }
}

NginxServer::~NginxServer()
{
    if (process) {
        process->Signal(SIGTERM);
        process->Wait(std::chrono::seconds(10));
    }
}

bool NginxServer::MakeCertificate()
{
    const std::string request = folder.Path() + "/request.cnf";
    WriteFile(request, CERTIFICATE_REQUEST);
    const Finished made =
        RunProgram({{NVRHTTP_OPENSSL, "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
                     "-nodes", "-days", "2", "-config", request, "-keyout", folder.Path() + "/key.pem", "-out",
                     folder.Path() + "/certificate.pem"}});
    problem = made.status == 0 ? "" : "no certificate: " + made.errors;
    return problem.empty();
}

void NginxServer::WriteConfiguration(const std::string &modulesFolder) const
{
    const std::string plain = "    listen 127.0.0.1:" + std::to_string(plainPort) + ";\n";
    const std::string tls = "    listen 127.0.0.1:" + std::to_string(tlsPort) + " ssl;\n";
    const std::string http2 = "    listen 127.0.0.1:" + std::to_string(http2Port) + " ssl http2;\n";
    const std::string load = "load_module " + modulesFolder + "/ngx_http_echo_module.so;\n";
    WriteFile(folder.Path() + "/nginx.conf", load + KeepUser() + SETTINGS + "  root " + folder.Path() +
                                                 ";\n  server {\n" + plain + tls + http2 + LOCATIONS + "  }\n}\n");
    WriteFile(folder.Path() + "/passwords", std::string(USER) + ":{PLAIN}" + PASSWORD + "\n");
}

void NginxServer::Launch(const std::vector<int> &sockets)
{
    Program program;
    program.command = {NVRHTTP_NGINX, "-p", folder.Path(), "-c", "nginx.conf", "-e", "error.log"};
    std::string inherited = "NGINX=";
    for (int fd : sockets) {
        inherited += std::to_string(fd) + ";";
    }
    program.environment = {inherited};
    program.inChild = [sockets] {
        /* Its first notices do not belong into the test's output. */
        dup2(STDOUT_FILENO, STDERR_FILENO);
        return std::all_of(sockets.begin(), sockets.end(), [](int fd) { return fcntl(fd, F_SETFD, 0) == 0; });
    };
    process.emplace(program);
    /* The kernel accepts connections already; they are served once it is up. */
    if (!WaitUntil([this] { return !ReadFile(folder.Path() + "/nginx.pid").empty(); })) {
        problem = "nginx does not start: " + ReadFile(folder.Path() + "/error.log");
    }
}

const std::string &NginxServer::Problem() const
{
    return problem;
}

std::string NginxServer::Http(const std::string &path, const std::string &scheme) const
{
    return LoopbackUrl(plainPort, path, scheme);
}

std::string NginxServer::Https(const std::string &path, const std::string &scheme) const
{
    return LoopbackUrl(tlsPort, path, scheme);
}

std::string NginxServer::Http2(const std::string &path) const
{
    return LoopbackUrl(http2Port, path, "https");
}

std::string NginxServer::CertificatePath() const
{
    return folder.Path() + "/certificate.pem";
}

void NginxServer::MakeFile(const std::string &name, size_t length) const
{
    mkdir((folder.Path() + "/files").c_str(), 0700);
    WriteFile(folder.Path() + "/files/" + name, SampleText(length));
}

bool NginxServer::MakeHugeFile(const std::string &name) const
{
    MakeFile(name, 0);
    return truncate((folder.Path() + "/files/" + name).c_str(), int64_t{1} << 40) == 0;
}

size_t NginxServer::RequestCount() const
{
    const std::string log = ReadFile(folder.Path() + "/access.log");
    return static_cast<size_t>(std::count(log.begin(), log.end(), '\n'));
}

std::string NginxServer::LastRequest() const
{
    const std::string log = ReadFile(folder.Path() + "/access.log");
    const size_t end = log.rfind('\n');
    const size_t begin = log.rfind('\n', end - 1) + 1; /* 0 for the first line */
    return end == std::string::npos ? std::string() : log.substr(begin, end - begin);
}

bool NginxServer::WaitForRequests(size_t count) const
{
    return WaitUntil([this, count] { return RequestCount() >= count; });
}

} // namespace test
