/* Runs competitors by turns, each once a round, and tells what each run took. It runs inside the private root already,
 * so that nothing is timed but the run: from just before the spawn to just after the end was collected.
 *
 *   runner ROUNDS JOBS <PLAN
 *
 * The plan has three records for a competitor: the file that its standard input is fed from through a pipe, the words
 * of a program that is run first and not timed, and the words of the timed program. The first two may be empty. A byte
 * 0x1e ends a record, 0x1f stands between words. Of JOBS programs at once "{}" in a word becomes the number of the job,
 * from 0.
 *
 * One line per run on standard output, fields separated by blanks: the competitor's number from 0, wall time in ns,
 * user and system time in us, peak memory in KiB, minor and major page faults, voluntary context switches; over all
 * jobs of the run, memory that of the largest. The first round warms up and is not told.
 *
 * It is small on purpose: a process begins with the peak memory of the one that spawned it. */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

enum { MOST_COMPETITORS = 16, MOST_WORDS = 256, MOST_JOBS = 256, PIPE_ROOM = 65536 };

static const char RECORD_END = '\x1e';
static const char WORD_END[] = "\x1f";

struct competitor {
    char *input;
    char *before[MOST_WORDS];
    char *program[MOST_WORDS];
};

static char *const ENVIRONMENT[] = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "HOME=/root", NULL};

static void fail(const char *what)
{
    fprintf(stderr, "runner: %s: %s\n", what, strerror(errno));
    exit(2);
}

static char *next_record(void)
{
    char *record = NULL;
    size_t size = 0;
    const ssize_t length = getdelim(&record, &size, RECORD_END, stdin);
    if (length < 1)
        return NULL;
    record[length - 1] = '\0';
    return record;
}

static void split(char *record, char **words)
{
    int count = 0;
    for (char *word; count < MOST_WORDS - 1 && (word = strsep(&record, WORD_END)) != NULL && *word != '\0';)
        words[count++] = word;
    words[count] = NULL;
}

static char **for_job(char *const *words, int job)
{
    static char texts[MOST_WORDS][1024];
    static char *numbered[MOST_WORDS];
    int count = 0;
    for (; words[count] != NULL; ++count) {
        char *mark = strstr(words[count], "{}");
        numbered[count] = words[count];
        if (mark == NULL)
            continue;
        snprintf(texts[count], sizeof texts[count], "%.*s%d%s", (int)(mark - words[count]), words[count], job,
                 mark + 2);
        numbered[count] = texts[count];
    }
    numbered[count] = NULL;
    return numbered;
}

static pid_t spawn(char *const *words, int input)
{
    posix_spawn_file_actions_t actions;
    pid_t pid;
    posix_spawn_file_actions_init(&actions);
    if (input >= 0) {
        posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
        posix_spawn_file_actions_addclose(&actions, input);
    }
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    errno = posix_spawn(&pid, words[0], &actions, NULL, words, ENVIRONMENT);
    if (errno != 0)
        fail(words[0]);
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

static void must_succeed(const char *name, int status)
{
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
        return;
    fprintf(stderr, "runner: %s ended with wait status 0x%x\n", name, (unsigned)status);
    exit(2);
}

/* Goes on writing the file to the pipe while the competitor reads, in a process of its own: the file is mapped there,
 * for what is mapped here would count as peak memory of every program spawned later. */
static pid_t feed_all(int file, size_t size, int pipe_end)
{
    const pid_t feeder = fork();
    if (feeder != 0)
        return feeder;
    const char *content = mmap(NULL, size, PROT_READ, MAP_PRIVATE | MAP_POPULATE, file, 0);
    if (content == MAP_FAILED)
        _exit(1);
    for (size_t done = 0; done < size;) {
        const ssize_t wrote = write(pipe_end, content + done, size - done < PIPE_ROOM ? size - done : PIPE_ROOM);
        if (wrote < 0)
            _exit(1);
        done += (size_t)wrote;
    }
    _exit(0);
}

/* The reading end of a pipe with the file's content: written beforehand when the pipe takes it whole, otherwise by the
 * process `feeder`, which is 0 when there is none. */
static int feed(const char *path, pid_t *feeder)
{
    static char content[PIPE_ROOM];
    struct stat status;
    int ends[2];
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0 || fstat(file, &status) != 0 || pipe2(ends, O_CLOEXEC) != 0)
        fail(path);
    const size_t size = (size_t)status.st_size;
    *feeder = 0;
    if (size > sizeof content)
        *feeder = feed_all(file, size, ends[1]);
    else if (read(file, content, size) != status.st_size || write(ends[1], content, size) != status.st_size)
        fail(path);
    close(ends[1]);
    close(file);
    return ends[0];
}

static long long now(void)
{
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1000000000LL + time.tv_nsec;
}

static long long microseconds(struct timeval time)
{
    return time.tv_sec * 1000000LL + time.tv_usec;
}

static void run(const struct competitor *competitor, int number, int jobs, int told)
{
    int inputs[MOST_JOBS];
    pid_t feeders[MOST_JOBS] = {0};
    pid_t pids[MOST_JOBS];
    int status;
    long long user = 0, system = 0;
    long memory = 0, minor = 0, major = 0, waits = 0;

    for (int job = 0; job < jobs; ++job) {
        if (competitor->before[0] != NULL) {
            waitpid(spawn(for_job(competitor->before, job), -1), &status, 0);
            must_succeed(competitor->before[0], status);
        }
        inputs[job] = competitor->input == NULL ? -1 : feed(competitor->input, &feeders[job]);
    }
    const long long begin = now();
    for (int job = 0; job < jobs; ++job)
        pids[job] = spawn(for_job(competitor->program, job), inputs[job]);
    for (int job = 0; job < jobs; ++job) {
        struct rusage used;
        if (wait4(pids[job], &status, 0, &used) != pids[job])
            fail("wait4");
        must_succeed(competitor->program[0], status);
        user += microseconds(used.ru_utime);
        system += microseconds(used.ru_stime);
        memory = used.ru_maxrss > memory ? used.ru_maxrss : memory;
        minor += used.ru_minflt;
        major += used.ru_majflt;
        waits += used.ru_nvcsw;
    }
    const long long end = now();
    for (int job = 0; job < jobs; ++job) {
        if (inputs[job] >= 0)
            close(inputs[job]);
        if (feeders[job] > 0)
            waitpid(feeders[job], &status, 0);
    }
    if (told)
        printf("%d %lld %lld %lld %ld %ld %ld %ld\n", number, end - begin, user, system, memory, minor, major, waits);
}

/* A new order for each round, the same ones every time: who always runs after a large program finds the caches cold. */
static void shuffle(int *order, int count)
{
    for (int last = count - 1; last > 0; --last) {
        const int other = (int)(random() % (last + 1));
        const int moved = order[last];
        order[last] = order[other];
        order[other] = moved;
    }
}

int main(int argc, char *argv[])
{
    static struct competitor competitors[MOST_COMPETITORS];
    const int rounds = argc == 3 ? atoi(argv[1]) : 0;
    const int jobs = argc == 3 ? atoi(argv[2]) : 0;
    int count = 0;
    int order[MOST_COMPETITORS];
    if (rounds < 1 || jobs < 1 || jobs > MOST_JOBS)
        return 2;
    for (char *input; count < MOST_COMPETITORS && (input = next_record()) != NULL; ++count) {
        competitors[count].input = *input == '\0' ? NULL : input;
        split(next_record(), competitors[count].before);
        split(next_record(), competitors[count].program);
        order[count] = count;
        if (competitors[count].program[0] == NULL)
            return 2;
    }
    for (int round = 0; round <= rounds; ++round) {
        shuffle(order, count);
        for (int turn = 0; turn < count; ++turn)
            run(&competitors[order[turn]], order[turn], jobs, round > 0);
    }
    return 0;
}
