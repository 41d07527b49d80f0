#include "nginx_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <vector>

extern char **environ;

namespace
{

/* Starts a program with its output in a file; the given sockets stay open in it. */
pid_t Start(const std::vector<std::string> &command, const std::vector<std::string> &extraEnvironment,
            const std::string &outputFile, const std::vector<int> &keepOpen)
{
    std::vector<char *> arguments;
    std::vector<char *> environment;
    for (const std::string &word : command) {
        arguments.push_back(const_cast<char *>(word.c_str()));
    }
    arguments.push_back(nullptr);
    for (const std::string &setting : extraEnvironment) {
        environment.push_back(const_cast<char *>(setting.c_str()));
    }
    for (char **setting = environ; *setting != nullptr; ++setting) {
        environment.push_back(*setting);
    }
    environment.push_back(nullptr);

    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child != 0) {
        return child;
    }
    /* It ends with the test, also where the test is killed. */
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) {
        _exit(127);
    }
    const int output = open(outputFile.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    for (int fd : keepOpen) {
        fcntl(fd, F_SETFD, 0);
    }
    execve(arguments[0], arguments.data(), environment.data());
    _exit(127);
}

/* Runs a program to its end; true if that was a success. */
bool RunToEnd(const std::vector<std::string> &command, const std::string &outputFile)
{
    int status = 0;
    const pid_t child = Start(command, {}, outputFile, {});
    return child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool WriteFile(const std::string &path, const std::string &text)
{
    std::ofstream file(path, std::ios::binary);
    file << text;
    file.close();
    return file.good();
}

/* Where nginx was told at its own build that its modules are. */
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

const char *const certificateRequest = "[req]\n"
                                       "distinguished_name = name\n"
                                       "x509_extensions = server\n"
                                       "prompt = no\n"
                                       "[name]\n"
                                       "CN = 127.0.0.1\n"
                                       "[server]\n"
                                       "subjectAltName = IP:127.0.0.1\n";

const char *const commonSettings = "daemon off;\n"
                                   "worker_processes 1;\n"
                                   "pid nginx.pid;\n"
                                   "error_log error.log info;\n"
                                   "events { worker_connections 4096; }\n"
                                   "http {\n"
                                   "  access_log off;\n"
                                   "  default_type application/json;\n"
                                   "  client_body_temp_path body;\n"
                                   "  proxy_temp_path proxy;\n"
                                   "  fastcgi_temp_path fastcgi;\n"
                                   "  uwsgi_temp_path uwsgi;\n"
                                   "  scgi_temp_path scgi;\n"
                                   "  client_max_body_size 16m;\n"
                                   "  client_body_buffer_size 16m;\n"
                                   "  keepalive_requests 1000000;\n";

const char *const places = "    ssl_certificate certificate.pem;\n"
                           "    ssl_certificate_key key.pem;\n"
                           "    location /ready { return 200 ready; }\n"
                           "    location /echo { echo_read_request_body; echo_request_body; }\n"
                           "    location /late { echo_sleep 0.3; echo -n ok; }\n"
                           "    location /pieces { echo -n one; echo_flush; echo_sleep 0.1; echo -n two; echo_flush;\n"
                           "                       echo_sleep 0.1; echo -n three; }\n"
                           "    location /files/ { error_page 405 =200 $uri; }\n" /* a POST gets the file, too */
                           "    location /auth { auth_basic recorder; auth_basic_user_file passwords;\n"
                           "                     echo_read_request_body; echo_request_body; }\n"
                           "    location /status/404 { return 404 \"nothing here, says the server\"; }\n"
                           "    location /status/500 { return 500 \"broken, says the server\"; }\n";

} // namespace

NginxServer::NginxServer() : folder(common::MakeFolder())
{
    const std::string program = NVRHTTP_NGINX;
    int plainSocket = -1;
    int tlsSocket = -1;
    int http2Socket = -1;
    if (program.empty() || std::string(NVRHTTP_OPENSSL).empty()) {
        problem = "no nginx or no openssl was found when the build was configured";
        return;
    }
    if (!RunToEnd({program, "-V"}, folder + "/description")) {
        problem = "nginx -V failed";
        return;
    }
    if (!MakeCertificate()) {
        problem = "no certificate: " + common::ReadWholeFile(folder + "/openssl.out");
        return;
    }
    /* The sockets are ours and nginx inherits them, so no other process can get between. */
    plainSocket = common::BindLoopback(&plainPort);
    tlsSocket = common::BindLoopback(&tlsPort);
    http2Socket = common::BindLoopback(&http2Port);
    const std::vector<int> sockets = {plainSocket, tlsSocket, http2Socket};
    if (std::any_of(sockets.begin(), sockets.end(), [](int fd) { return fd < 0 || listen(fd, 511) != 0; })) {
        problem = "no free loopback ports";
    } else if (!WriteConfiguration(ModulesFolder(common::ReadWholeFile(folder + "/description")))) {
        problem = "the configuration could not be written";
    } else if (!Launch(sockets)) {
        problem = "nginx could not be started";
    }
    for (int fd : sockets) {
        close(fd);
    }
    if (problem.empty() && !Answers()) {
        problem = "nginx does not answer: " + common::ReadWholeFile(folder + "/nginx.out") + ErrorLog();
    }
}

NginxServer::~NginxServer()
{
    Stop();
    common::RemoveFolder(folder);
}

bool NginxServer::MakeCertificate()
{
    return WriteFile(folder + "/request.cnf", certificateRequest) &&
           RunToEnd({NVRHTTP_OPENSSL, "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
                     "-nodes", "-days", "2", "-config", folder + "/request.cnf", "-keyout", folder + "/key.pem", "-out",
                     folder + "/certificate.pem"},
                    folder + "/openssl.out");
}

bool NginxServer::WriteConfiguration(const std::string &modulesFolder)
{
    const std::string plain = "    listen 127.0.0.1:" + std::to_string(plainPort) + ";\n";
    const std::string tls = "    listen 127.0.0.1:" + std::to_string(tlsPort) + " ssl;\n";
    const std::string http2 = "    listen 127.0.0.1:" + std::to_string(http2Port) + " ssl http2;\n";
    const std::string load = "load_module " + modulesFolder + "/ngx_http_echo_module.so;\n";
    return WriteFile(folder + "/nginx.conf", load + KeepUser() + commonSettings + "  root " + folder +
                                                 ";\n  server {\n" + plain + tls + http2 + places + "  }\n}\n") &&
           WriteFile(folder + "/passwords", std::string(user) + ":{PLAIN}" + password + "\n");
}

bool NginxServer::Launch(const std::vector<int> &sockets)
{
    std::string inherited = "NGINX=";
    for (int fd : sockets) {
        inherited += std::to_string(fd) + ";";
    }
    process = Start({NVRHTTP_NGINX, "-p", folder + "/", "-c", folder + "/nginx.conf", "-e", folder + "/error.log"},
                    {inherited}, folder + "/nginx.out", sockets);
    return process > 0;
}

/* The connection is accepted by the kernel at once; the answer comes as soon as nginx is up. */
bool NginxServer::Answers() const
{
    const std::string question = "GET /ready HTTP/1.0\r\n\r\n";
    const timeval limit{common::patience.count(), 0};
    sockaddr_in address{};
    std::string answer;
    char buffer[512];
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(plainPort);
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0 &&
        send(fd, question.data(), question.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(question.size())) {
        for (ssize_t got = recv(fd, buffer, sizeof(buffer), 0); got > 0; got = recv(fd, buffer, sizeof(buffer), 0)) {
            answer.append(buffer, static_cast<size_t>(got));
        }
    }
    close(fd);
    return answer.find("\r\n\r\nready") != std::string::npos;
}

void NginxServer::Stop()
{
    if (process <= 0) {
        return;
    }
    kill(process, SIGTERM);
    const bool ended =
        common::WaitUntil([this] { return waitpid(process, nullptr, WNOHANG) != 0; }, std::chrono::seconds(10));
    if (!ended) {
        kill(process, SIGKILL);
        waitpid(process, nullptr, 0);
    }
    process = -1;
}

bool NginxServer::IsRunning() const
{
    return problem.empty();
}

const std::string &NginxServer::Problem() const
{
    return problem;
}

std::string NginxServer::Http(const std::string &path, const std::string &scheme) const
{
    return scheme + "://127.0.0.1:" + std::to_string(plainPort) + path;
}

std::string NginxServer::Https(const std::string &path, const std::string &scheme) const
{
    return scheme + "://127.0.0.1:" + std::to_string(tlsPort) + path;
}

std::string NginxServer::Http2(const std::string &path) const
{
    return "https://127.0.0.1:" + std::to_string(http2Port) + path;
}

bool NginxServer::MakeFile(const std::string &name, size_t length) const
{
    mkdir((folder + "/files").c_str(), 0700);
    return WriteFile(folder + "/files/" + name, common::Text(length));
}

bool NginxServer::MakeHugeFile(const std::string &name) const
{
    return MakeFile(name, 0) && truncate((folder + "/files/" + name).c_str(), int64_t{1} << 40) == 0;
}

std::string NginxServer::ErrorLog() const
{
    return common::ReadWholeFile(folder + "/error.log");
}

void NginxTest::SetUp()
{
    ASSERT_TRUE(nginx.IsRunning()) << nginx.Problem();
}
