#include <ovra/extra/internal/Schedules.h>

#include <ovra/extra/internal/Later.h>

namespace ovra::extra {

std::uint64_t Schedules::add(Time due, std::chrono::milliseconds period, Job job) {
    std::uint64_t const id = lastId + 1;
    decltype(order) added{{due, id}};
    schedules.emplace(id, Schedule{due, period, std::move(job)});
    order.merge(added);
    lastId = id;
    return id;
}

Schedules::Job Schedules::remove(std::uint64_t id) {
    auto const found = schedules.find(id);
    if (found == schedules.end()) {
        return nullptr;
    }
    Job job = std::move(found->second.job);
    order.erase({found->second.due, id});
    schedules.erase(found);
    return job;
}

Schedules::Time Schedules::nextDue() const {
    return order.empty() ? Time::max() : order.begin()->first;
}

Schedules::Due Schedules::takeDue(Time now) {
    std::uint64_t const id = order.begin()->second;
    Schedule& schedule = schedules.find(id)->second;
    if (schedule.period == std::chrono::milliseconds::zero()) {
        return {id, remove(id)};
    }
    auto const missed = (now - schedule.due) / schedule.period;
    schedule.due = later(schedule.due + missed * schedule.period, schedule.period);
    auto place = order.extract(order.begin());
    place.value().first = schedule.due;
    order.insert(std::move(place));
    return {id, schedule.job->isUnderWay ? nullptr : schedule.job};
}

}  // namespace ovra::extra
