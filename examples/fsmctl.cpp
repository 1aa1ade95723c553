// fsmctl.cpp - asks a file-system manager (fsmd) questions, and puts load on it.
//
// Shows the client side: finding a daemon by the installation's files, addresses of either family
// with and without a port, and a connection that is checked byte for byte.
//
//     fsmctl [-s ADDRESS[:PORT]] FSNAME state | stats | list | get N ... | load CLIENTS REQUESTS
//
// "load" reads random blocks over several connections at once, checks each, and prints how fast
// the answers came. The exit status is 0 when every answer was right, 1 when not, 2 for misuse.
#include "block_store.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <vector>

namespace
{

constexpr size_t longest_answer = size_t{16} << 20;

struct Server {
    in46addr_t address;
    uint16_t port;
};

int usage()
{
    fprintf(stderr,
            "usage: fsmctl [-s ADDRESS[:PORT]] FSNAME COMMAND\n"
            "\n"
            "  state, stats, list     ask the daemon\n"
            "  get N ...              check blocks\n"
            "  load CLIENTS REQUESTS  check random blocks and measure\n"
            "\n"
            "The default address is 127.0.0.1; the default port is the one that the daemon\n"
            "of this installation (VORNROOT) has published.\n");
    return 2;
}

// An IPv4 address becomes a mapped one.
bool parse_address(const char *text, in46addr_t &address)
{
    const std::string mapped = std::string("::ffff:") + text;
    return inet_pton(AF_INET6, text, &address) == 1 ||
           inet_pton(AF_INET6, mapped.c_str(), &address) == 1;
}

uint16_t published_port(const std::string &file_system)
{
    const std::string path = std::string(GetVornDataDir()) + "/" + file_system + ".port";
    unsigned port = 0;
    if (FILE *file = fopen(path.c_str(), "re"); file != nullptr) {
        if (fscanf(file, "%u", &port) != 1 || port > 65535) {
            port = 0;
        }
        fclose(file);
    }
    return static_cast<uint16_t>(port);
}

// One connection: a request out, an answer in.
class Client
{
  public:
    explicit Client(const Server &server)
    {
        int error = 0;
        socket_.reset(SockConnect(&server.address, server.port, &error));
        if (!socket_) {
            char name[256];
            fprintf(stderr, "fsmctl: %s port %u: %s\n", RawIp(&server.address, name),
                    static_cast<unsigned>(server.port), strerror(error));
        }
    }
    bool connected() const { return static_cast<bool>(socket_); }

    // The body of the answer, or nothing after an error, which is in `problem()`.
    std::optional<std::string> ask(const std::string &request)
    {
        const std::string line = request + "\n";
        size_t end = 0;
        if (send(socket_.get(), line.data(), line.size(), MSG_NOSIGNAL) !=
            static_cast<ssize_t>(line.size())) {
            return fail("the connection is gone");
        }
        while ((end = received_.find('\n')) == std::string::npos) {
            if (received_.size() > 300 || !receive()) {
                return fail("no answer");
            }
        }
        const std::string head = received_.substr(0, end);
        received_.erase(0, end + 1);
        if (head.rfind("OK ", 0) != 0) {
            return fail(head);
        }
        const size_t size = strtoull(head.c_str() + 3, nullptr, 10);
        if (size > longest_answer) {
            return fail("an answer of " + head.substr(3) + " bytes");
        }
        while (received_.size() < size) {
            if (!receive()) {
                return fail("half an answer");
            }
        }
        std::string body = received_.substr(0, size);
        received_.erase(0, size);
        return body;
    }
    const std::string &problem() const { return problem_; }

  private:
    std::optional<std::string> fail(const std::string &problem)
    {
        problem_ = problem;
        return std::nullopt;
    }
    bool receive()
    {
        char bytes[65536];
        const ssize_t got = recv(socket_.get(), bytes, sizeof bytes, 0);
        if (got > 0) {
            received_.append(bytes, static_cast<size_t>(got));
        }
        return got > 0;
    }

    ko::Descriptor socket_;
    std::string received_;
    std::string problem_;
};

// Whether these are the bytes of block `number`.
bool is_block(const std::string &body, uint64_t number)
{
    Block block;
    if (body.size() != sizeof block) {
        return false;
    }
    memcpy(&block, body.data(), sizeof block);
    return block.is(number);
}

int print_answer(Client &client, const std::string &request)
{
    const auto body = client.ask(request);
    if (!body) {
        fprintf(stderr, "fsmctl: %s\n", client.problem().c_str());
        return 1;
    }
    fputs(body->c_str(), stdout);
    return 0;
}

int check_block(Client &client, const std::string &argument)
{
    const auto body = client.ask("GET " + argument);
    if (!body || !is_block(*body, strtoull(argument.c_str(), nullptr, 10))) {
        fprintf(stderr, "fsmctl: block %s: %s\n", argument.c_str(),
                body ? "wrong bytes" : client.problem().c_str());
        return 1;
    }
    printf("block %s: %zu bytes, as they should be\n", argument.c_str(), body->size());
    return 0;
}

// The number behind a word of the daemon's STATE.
uint64_t state_value(Client &client, const std::string &name)
{
    const std::string state = "\n" + client.ask("STATE").value_or("");
    const size_t at = state.find("\n" + name + " ");
    return at == std::string::npos ? 0
                                   : strtoull(state.c_str() + at + name.size() + 2, nullptr, 10);
}

// Asks for `requests` random blocks; latencies in microseconds, or fewer of them after a failure.
void load_one(const Server &server, unsigned seed, size_t requests,
              std::vector<uint32_t> &latencies)
{
    Client client(server);
    const uint64_t blocks = client.connected() ? state_value(client, "blocks") : 0;
    uint64_t random = seed;
    for (size_t i = 0; blocks > 0 && i < requests; i++) {
        random = random * 6364136223846793005U + 1442695040888963407U;
        const uint64_t number = (random >> 33) % blocks;
        timespec begun;
        timespec ended;
        clock_gettime(CLOCK_MONOTONIC, &begun);
        const auto body = client.ask("GET " + std::to_string(number));
        clock_gettime(CLOCK_MONOTONIC, &ended);
        if (!body || !is_block(*body, number)) {
            fprintf(stderr, "fsmctl: block %llu: %s\n", static_cast<unsigned long long>(number),
                    body ? "wrong bytes" : client.problem().c_str());
            return;
        }
        latencies.push_back(static_cast<uint32_t>((ended.tv_sec - begun.tv_sec) * 1'000'000 +
                                                  (ended.tv_nsec - begun.tv_nsec) / 1000));
    }
}

int load(const Server &server, size_t clients, size_t requests)
{
    std::vector<std::vector<uint32_t>> latencies(clients);
    std::vector<std::thread> threads;
    const size_t each = (requests + clients - 1) / clients;
    timeval begun;
    double seconds = 0;
    get_start_timer(&begun);
    for (size_t i = 0; i < clients; i++) {
        threads.emplace_back(load_one, std::cref(server), static_cast<unsigned>(i + 1), each,
                             std::ref(latencies[i]));
    }
    std::vector<uint32_t> all;
    for (size_t i = 0; i < clients; i++) {
        threads[i].join();
        all.insert(all.end(), latencies[i].begin(), latencies[i].end());
    }
    get_end_timer(&begun, &seconds);
    if (all.size() < each * clients) {
        fprintf(stderr, "fsmctl: %zu of %zu answers were right\n", all.size(), each * clients);
        return 1;
    }
    std::sort(all.begin(), all.end());
    printf("%zu blocks over %zu connections, all right: %.0f a second\n", all.size(), clients,
           static_cast<double>(all.size()) / seconds);
    printf("microseconds for one: median %u, 99th percentile %u, longest %u\n", all[all.size() / 2],
           all[all.size() * 99 / 100], all.back());
    return 0;
}

int run(const Server &server, const std::vector<std::string> &words)
{
    const std::string &command = words[0];
    if (command == "load" && words.size() == 3) {
        const long clients = atol(words[1].c_str());
        const long requests = atol(words[2].c_str());
        return clients < 1 || clients > 150 || requests < 1 || requests > 10'000'000
                   ? usage()
                   : load(server, static_cast<size_t>(clients), static_cast<size_t>(requests));
    }
    const bool get = command == "get" && words.size() > 1;
    if (!get &&
        (words.size() != 1 || (command != "state" && command != "stats" && command != "list"))) {
        return usage();
    }
    Client client(server);
    int result = client.connected() ? 0 : 1;
    for (size_t i = 1; get && result == 0 && i < words.size(); i++) {
        result = check_block(client, words[i]);
    }
    if (!get && result == 0) {
        result = print_answer(client, command == "state"   ? "STATE"
                                      : command == "stats" ? "STATS"
                                                           : "LIST");
    }
    return result;
}

} // namespace

int main(int argc, char **argv)
{
    static char name[] = "fsmctl";
    set_caller_name(name);
    LibraryInit();
    std::vector<std::string> words(argv + 1, argv + argc);
    Server server = {};
    parse_address("127.0.0.1", server.address);
    if (words.size() > 2 && words[0] == "-s") {
        char *address = nullptr;
        ExtractAddrPort(words[1].data(), &address, &server.port);
        if (address == nullptr || !parse_address(address, server.address)) {
            return usage();
        }
        words.erase(words.begin(), words.begin() + 2);
    }
    if (words.size() < 2) {
        return usage();
    }
    if (server.port == 0) {
        server.port = published_port(words[0]);
    }
    if (server.port == 0) {
        fprintf(stderr, "fsmctl: no daemon of %s has published its port below %s\n",
                words[0].c_str(), GetVornDataDir());
        return 1;
    }
    return run(server, {words.begin() + 1, words.end()});
}
