#include <benchmarks/support/Run.h>

int main(int argc, char** argv) {
    return ovra::bench::Run::main(argc, argv);
}
