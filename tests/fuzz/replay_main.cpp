/*
** replay_main.cpp -- without libFuzzer, each fuzz target is a plain program that feeds every
** file of the directories (or the files) named on its command line to the target once. ctest
** runs it over the kept seeds and crash inputs, so a fixed crash stays fixed. A missing
** directory counts as empty.
*/
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include <dirent.h>
#include <sys/stat.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

static bool run_file(const std::string &path)
{
    FILE *f = fopen(path.c_str(), "rb");
    if (!f) {
        fprintf(stderr, "replay: cannot open %s\n", path.c_str());
        return false;
    }
    std::vector<uint8_t> bytes;
    uint8_t buf[65536];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0) {
        bytes.insert(bytes.end(), buf, buf + n);
    }
    fclose(f);
    fprintf(stderr, "replay: %s (%zu bytes)\n", path.c_str(), bytes.size());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    return true;
}

int main(int argc, char **argv)
{
    int inputs = 0;
    for (int i = 1; i < argc; i++) {
        struct stat st;
        if (stat(argv[i], &st) != 0) {
            continue;
        }
        if (!S_ISDIR(st.st_mode)) {
            inputs += run_file(argv[i]) ? 1 : 0;
            continue;
        }
        std::vector<std::string> names;
        if (DIR *d = opendir(argv[i])) {
            while (struct dirent *ent = readdir(d)) {
                if (ent->d_name[0] != '.') {
                    names.push_back(ent->d_name);
                }
            }
            closedir(d);
        }
        std::sort(names.begin(), names.end());
        for (const std::string &name : names) {
            inputs += run_file(std::string(argv[i]) + "/" + name) ? 1 : 0;
        }
    }
    printf("replayed %d inputs\n", inputs);
    return 0;
}
