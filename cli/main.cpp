/*
** main.cpp -- tarnwick-cli: index a directory and search it from the command line.
**
** The only place that turns errors into exit statuses: 0 on success, 2 for a command line that
** cannot be understood, 1 for every other failure, 128 + N for work stopped by signal N (130 for
** Ctrl+C), each with one "tarnwick: " line on standard error. An allocation failure inside the
*engine ends the process there (status 1).
*/
#include "args.h"
#include "commands.h"
#include "model_commands.h"
#include "tarnwick.h"

#include <cstdio>
#include <exception>
#include <new>

int main(int argc, char **argv)
{
    try {
        ModelRuntime runtime(argc, argv);
        Options o = parse_args(argc, argv);
        if (o.help) {
            std::fputs(usage_text(), stdout);
            return 0;
        }
        if (o.version) {
            // The program's version comes from the build (the project's version).
            std::printf("tarnwick-cli %s (engine %s)\n", TRN_VERSION, trn_version());
            return 0;
        }
        trn_set_verbose(o.verbose ? 1 : 0);
        run_command(o, runtime);
        if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
            throw Failure("cannot write to standard output");
        }
        return 0;
    } catch (const Interrupted &err) {
        std::fflush(stdout);
        std::fprintf(stderr, "tarnwick: %s\n", err.what());
        return 128 + err.signal;
    } catch (const QueryError &err) {
        std::fprintf(stderr, "tarnwick: %s\n", err.what());
        return 2;
    } catch (const UsageError &err) {
        std::fprintf(stderr, "tarnwick: %s (see tarnwick-cli --help)\n", err.what());
        return 2;
    } catch (const Failure &err) {
        std::fprintf(stderr, "tarnwick: %s\n", err.what());
        return 1;
    } catch (const std::bad_alloc &) {
        std::fputs("tarnwick: OOM\n", stderr);
        return 1;
    } catch (const std::exception &err) {
        std::fprintf(stderr, "tarnwick: %s\n", err.what());
        return 1;
    }
}
