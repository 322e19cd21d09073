/* Runs competitors by turns, each once a round, and prints what each run took. It runs inside the private root, so that
 * only the run is timed: from before the spawn until its status is collected.
 *
 *   bench_runner ROUNDS JOBS <PLAN
 *
 * Records of the plan end with a byte 0x1e, their words are separated by 0x1f. Each competitor has a record with the
 * file that is its standard input (empty: /dev/null), one with the words of a program that runs first and is not timed
 * (may be empty), and JOBS records with the words of the programs that are timed, all at once.
 *
 * Prints a line per run: the competitor's number from 0, wall time in ns, CPU time in us, peak memory of the largest
 * program in KiB, page faults. The first round warms up and is not printed.
 *
 * It is small on purpose: a process begins with the peak memory of the one that spawned it. */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>

enum { MOST_COMPETITORS = 16, MOST_WORDS = 256, MOST_JOBS = 256 };

struct competitor {
    char **input;
    char **before;
    char **programs[MOST_JOBS];
};

static char *const ENVIRONMENT[] = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "HOME=/root", NULL};

static void fail(const char *what)
{
    fprintf(stderr, "runner: %s: %s\n", what, strerror(errno));
    exit(2);
}

/* Returns the words of the next record, or NULL at the end of the plan. */
static char **next_record(void)
{
    char *record = NULL;
    size_t size = 0;
    const ssize_t length = getdelim(&record, &size, '\x1e', stdin);
    if (length < 1)
        return NULL;
    record[length - 1] = '\0';
    char **words = calloc(MOST_WORDS + 1, sizeof *words);
    int count = 0;
    for (char *word; count < MOST_WORDS && (word = strsep(&record, "\x1f")) != NULL && *word != '\0';)
        words[count++] = word;
    return words;
}

static pid_t spawn(char *const *words, const char *input)
{
    posix_spawn_file_actions_t actions;
    pid_t pid;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, input != NULL ? input : "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    errno = posix_spawn(&pid, words[0], &actions, NULL, words, ENVIRONMENT);
    if (errno != 0)
        fail(words[0]);
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

/* Waits for the program `name`, which must succeed. */
static void collect(pid_t pid, const char *name, struct rusage *used)
{
    int status;
    if (wait4(pid, &status, 0, used) != pid)
        fail("wait4");
    if (status == 0)
        return;
    fprintf(stderr, "runner: %s ended with wait status 0x%x\n", name, (unsigned)status);
    exit(2);
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

static void run(const struct competitor *competitor, int number, int jobs, int printed)
{
    pid_t pids[MOST_JOBS];
    struct rusage used;
    long long cpu = 0;
    long memory = 0, faults = 0;
    if (competitor->before[0] != NULL)
        collect(spawn(competitor->before, NULL), competitor->before[0], &used);
    const long long begin = now();
    for (int job = 0; job < jobs; ++job)
        pids[job] = spawn(competitor->programs[job], competitor->input[0]);
    for (int job = 0; job < jobs; ++job) {
        collect(pids[job], competitor->programs[job][0], &used);
        cpu += microseconds(used.ru_utime) + microseconds(used.ru_stime);
        memory = used.ru_maxrss > memory ? used.ru_maxrss : memory;
        faults += used.ru_minflt + used.ru_majflt;
    }
    const long long end = now();
    if (printed)
        printf("%d %lld %lld %ld %ld\n", number, end - begin, cpu, memory, faults);
}

/* A new order for each round: a program that always follows a large one finds the caches cold. Each run of this program
 * uses the same orders. */
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
    for (char **input; count < MOST_COMPETITORS && (input = next_record()) != NULL; ++count) {
        competitors[count].input = input;
        competitors[count].before = next_record();
        for (int job = 0; job < jobs; ++job)
            competitors[count].programs[job] = next_record();
        order[count] = count;
    }
    for (int round = 0; round <= rounds; ++round) {
        shuffle(order, count);
        for (int turn = 0; turn < count; ++turn)
            run(&competitors[order[turn]], order[turn], jobs, round > 0);
    }
    return 0;
}
