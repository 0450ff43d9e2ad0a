#define _GNU_SOURCE
#include "floor.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <spawn.h>
#include <stdatomic.h>
#include <stdint.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

long floor_launch(char* const argv[])
{
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
        return -1;

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDERR_FILENO);
    pid_t pid = -1;
    const int error = posix_spawn(&pid, argv[0], &actions, NULL, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);

    long total = 0;
    char buffer[16384];
    for (ssize_t n; error == 0 && (n = read(fds[0], buffer, sizeof buffer)) > 0;)
        total += n;
    close(fds[0]);

    if (error != 0 || waitpid(pid, NULL, 0) != pid)
        return -1;
    return total;
}

static void* converse(void* argument)
{
    static const char greeting[] = "HELLO FROM THE FLOOR 00.0.0.0.0\r\n";
    const int fd = (int)(intptr_t)argument;
    char line[1024];

    ssize_t n = send(fd, greeting, sizeof greeting - 1, MSG_NOSIGNAL);
    while (n > 0 && (n = recv(fd, line, sizeof line, 0)) > 0)
        if (memmem(line, (size_t)n, "\r\n", 2) != NULL)
            n = send(fd, "OK\r\n", 4, MSG_NOSIGNAL);

    close(fd);
    return NULL;
}

int floor_serve(unsigned short port, char* const argv[])
{
    /* A descriptor for each of many conversations. */
    const int on = 1;
    struct rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);

    const struct sockaddr_in address = {
        .sin_family = AF_INET, .sin_port = htons(port), .sin_addr.s_addr = htonl(INADDR_LOOPBACK)};
    const int listening = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    setsockopt(listening, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    setsockopt(listening, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);

    if (argv != NULL && floor_launch(argv) < 0)
        return 1;
    if (bind(listening, (const struct sockaddr*)&address, sizeof address) != 0 || listen(listening, 128) != 0)
        return 1;

    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_attr_setstacksize(&attributes, 65536); /* as the manager's */

    for (;;) {
        pthread_t thread;
        const int fd = accept4(listening, NULL, NULL, SOCK_CLOEXEC);
        if (fd < 0 || pthread_create(&thread, &attributes, converse, (void*)(intptr_t)fd) != 0)
            return 1;
    }
}

struct questions
{
    unsigned short port;
    const char* const* lines;
    int count;
    atomic_int next;
    atomic_int failed;
};

static int await_line(int fd)
{
    char buffer[8192];
    ssize_t n;
    do
        n = recv(fd, buffer, sizeof buffer, 0);
    while (n > 0 && buffer[n - 1] != '\n');
    return n > 0 ? 0 : -1;
}

static int ask_line(int fd, const char* line)
{
    return send(fd, line, strlen(line), MSG_NOSIGNAL) < 0 ? -1 : await_line(fd);
}

static int open_conversation(unsigned short port)
{
    const struct sockaddr_in address = {
        .sin_family = AF_INET, .sin_port = htons(port), .sin_addr.s_addr = htonl(INADDR_LOOPBACK)};
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(fd, (const struct sockaddr*)&address, sizeof address) != 0 || await_line(fd) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

static void* ask_rest(void* argument)
{
    struct questions* q = argument;
    const int fd = open_conversation(q->port);
    for (int n; fd >= 0 && (n = atomic_fetch_add(&q->next, 1)) < q->count;)
        if (ask_line(fd, q->lines[n]) != 0)
            q->failed = 1;
    if (fd < 0)
        q->failed = 1;
    else
        close(fd);
    return NULL;
}

int floor_ask(unsigned short port, const char* const lines[], int count, int conversations)
{
    struct questions q = {.port = port, .lines = lines, .count = count, .next = 1};
    const int fd = open_conversation(port);
    if (fd < 0 || ask_line(fd, lines[0]) != 0)
        return -1;

    /* The other conversations have a thread each; this one goes on here. */
    pthread_t threads[15];
    int started = 0;
    while (started < conversations - 1 && started < 15 &&
           pthread_create(&threads[started], NULL, ask_rest, &q) == 0)
        ++started;
    for (int n; (n = atomic_fetch_add(&q.next, 1)) < count;)
        if (ask_line(fd, lines[n]) != 0)
            q.failed = 1;

    while (started > 0)
        pthread_join(threads[--started], NULL);
    close(fd);
    return q.failed ? -1 : 0;
}

int floor_find_in_file(const char* path, const char* text)
{
    char buffer[16384];
    const size_t length = strlen(text);
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    const ssize_t n = read(fd, buffer, sizeof buffer);
    close(fd);

    const char* end = buffer + (n > 0 ? n : 0);
    for (const char* p = buffer; (p = memchr(p, text[0], (size_t)(end - p))) != NULL; ++p)
        if ((size_t)(end - p) >= length && memcmp(p, text, length) == 0)
            return 1;
    return 0;
}
