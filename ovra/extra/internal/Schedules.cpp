#include <ovra/extra/internal/Schedules.h>

#include <ovra/extra/internal/Later.h>

namespace ovra::extra {

std::uint64_t Schedules::add(Time due, std::chrono::milliseconds period, Job job) {
    schedules.emplace(std::pair(due, lastId + 1), Schedule{period, std::move(job)});
    return ++lastId;
}

Schedules::Job Schedules::remove(std::uint64_t id) {
    for (auto place = schedules.begin(); place != schedules.end(); ++place) {
        if (place->first.second == id) {
            Job job = std::move(place->second.job);
            schedules.erase(place);
            return job;
        }
    }
    return nullptr;
}

Schedules::Time Schedules::nextDue() const {
    return schedules.empty() ? Time::max() : schedules.begin()->first.first;
}

Schedules::Due Schedules::takeDue(Time now) {
    auto const first = schedules.begin();
    auto const [due, id] = first->first;
    auto const& [period, job] = first->second;
    if (period == std::chrono::milliseconds::zero()) {
        Due result{id, job};
        schedules.erase(first);
        return result;
    }
    Due result{id, job->isUnderWay ? nullptr : job};
    Time const next = later(due + (now - due) / period * period, period);
    if (auto taken = schedules.extract(first)) {  // Always, which the compiler does not see.
        taken.key().first = next;
        schedules.insert(std::move(taken));
    }
    return result;
}

}  // namespace ovra::extra
