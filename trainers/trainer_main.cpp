/*
** trainer_main.cpp -- the encoder trainer program:
**   trainer CORPUS OUT STEPS BATCH LR HEADS LAYERS [--bpe PATH] [--threads N]
** Exit status 0 on success, 2 for a usage error or a shape the engine cannot load, 1 for any
** other failure. See trainers/README.md.
*/
#include "training.h"

#include <cstdio>
#include <new>

int main(int argc, char **argv)
{
    try {
        trn_train::TrainOptions opts;
        int rc = trn_train::parse_trainer_args(argc, argv, &opts);
        if (rc != 0) {
            return rc;
        }
        return trn_train::run_trainer(opts, stdout);
    } catch (const std::bad_alloc &) {
        fprintf(stderr, "trainer: out of memory\n");
        return 1;
    }
}
