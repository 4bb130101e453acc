// asyncValue <limit> <milliseconds>: counts the primes below the limit, for so long at most.

#include <chrono>
#include <cstdio>
#include <cstdlib>

#include <ovra/concurrent/TaskExecutors.h>
#include <ovra/extra.h>

namespace extra = ovra::extra;

namespace {

bool isPrime(long number) {
    for (long divisor = 2; divisor * divisor <= number; ++divisor) {
        if (number % divisor == 0) {
            return false;
        }
    }
    return number > 1;
}

}  // namespace

int main(int, char** arguments) {
    long const limit = std::atol(arguments[1]);
    std::chrono::milliseconds const patience(std::atol(arguments[2]));
    auto const executor = ovra::concurrent::getNoStarveTaskExecutor();

    auto count = extra::submitAsync(
        *executor,
        [limit](extra::StopFlag const& stop) {
            long found = 0;
            for (long number = 0; number < limit && !stop.isRaised(); ++number) {
                found += isPrime(number) ? 1 : 0;
            }
            return found;
        },
        ovra::concurrent::LOW, "primes");

    if (count.future.wait_for(patience) != std::future_status::ready) {
        count.cancel();  // The function sees the flag and returns, or never starts.
        std::puts("It takes too long.");
        return 1;
    }
    try {
        std::printf("%ld primes\n", count.future.get());
    } catch (std::exception const& exception) {  // What the function threw, or a broken promise.
        std::printf("No answer: %s\n", exception.what());
        return 1;
    }
    return 0;
}
