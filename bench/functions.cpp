/* Functions whose cost each run pays, alone and many times over. */
#include <cstdlib>
#include <fstream>
#include <string>

#include <benchmark/benchmark.h>
#include <boost/program_options/parsers.hpp>
#include <boost/program_options/variables_map.hpp>
#include <unistd.h>

#include "cli/options.h"
#include "support/conf_parse.h"
#include "support/conf_store.h"
#include "support/mail_syntax.h"

namespace {

void check_address(benchmark::State &state)
{
    const std::string address = std::string(static_cast<std::size_t>(state.range(0)), 'a') + "@mail.example.org";
    for (auto _ : state)
        benchmark::DoNotOptimize(mail_address_is_valid(address.c_str()));
}
BENCHMARK(check_address)->Arg(1)->Arg(64)->Arg(245);

void parse_conf(benchmark::State &state)
{
    char path[] = "/tmp/arsp-bench-XXXXXX";
    const int file = mkstemp(path);
    std::ofstream lines(path);
    for (long i = 0; i < state.range(0); ++i)
        lines << "VARIABLE_" << i << " /some/directory/" << i << '\n';
    lines.close();
    close(file);
    for (auto _ : state) {
        auto *store = static_cast<ConfStore *>(std::calloc(1, sizeof(ConfStore)));
        benchmark::DoNotOptimize(conf_parse_file(path, store));
        conf_store_free(store);
    }
    unlink(path);
    state.SetComplexityN(state.range(0));
}
BENCHMARK(parse_conf)->RangeMultiplier(10)->Range(10, 10000)->Complexity();

void describe_options(benchmark::State &state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(all_options());
}
BENCHMARK(describe_options);

void parse_options(benchmark::State &state)
{
    namespace po = boost::program_options;
    const char *const words[] = {"arspctl",      "--set-resp",       "--mailname",     "user@example.org",
                                 "--real-owner", "user@example.org", "--content-type", "html"};
    const po::options_description options = all_options();
    for (auto _ : state) {
        po::variables_map values;
        po::store(po::parse_command_line(std::size(words), words, options), values);
        po::notify(values);
        benchmark::DoNotOptimize(values);
    }
}
BENCHMARK(parse_options);

} // namespace
