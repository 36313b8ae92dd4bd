#include "client/wake-up.h"

#include <algorithm>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>

namespace client
{

namespace
{

bool add(int epoll, int fd, uint32_t events)
{
    epoll_event event{};
    event.events = events;
    return epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event) == 0;
}

void set_timer(int timer, clock::time_point alarm)
{
    using namespace std::chrono;
    itimerspec time{}; // all zero switches the timer off
    if (alarm != clock::time_point::max()) {
        const auto due = std::max<nanoseconds>(alarm.time_since_epoch(), nanoseconds(1));
        time.it_value.tv_sec = duration_cast<seconds>(due).count();
        time.it_value.tv_nsec = (due % seconds(1)).count();
    }
    timerfd_settime(timer, TFD_TIMER_ABSTIME, &time, nullptr);
}

} // namespace

bool wake_up::open()
{
    epoll_ = descriptor(epoll_create1(EPOLL_CLOEXEC));
    timer_ = descriptor(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    answer_event_ = descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    return epoll_.is_open() && timer_.is_open() && answer_event_.is_open() &&
           add(epoll_.get(), timer_.get(), EPOLLIN) && add(epoll_.get(), answer_event_.get(), EPOLLIN);
}

void wake_up::close()
{
    epoll_.reset();
    timer_.reset();
    answer_event_.reset();
}

void wake_up::watch_socket(int socket)
{
    add(epoll_.get(), socket, EPOLLIN);
    has_output_ = false;
}

void wake_up::forget_socket(int socket)
{
    epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, socket, nullptr);
}

void wake_up::set(int socket, bool has_output, bool has_answers, clock::time_point first_deadline)
{
    if (has_output != has_output_ && socket >= 0) {
        epoll_event event{};
        event.events = has_output ? EPOLLIN | EPOLLOUT : EPOLLIN;
        epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, socket, &event);
        has_output_ = has_output;
    }
    if (has_answers != has_answers_) {
        eventfd_t count = 0;
        if (has_answers)
            eventfd_write(answer_event_.get(), 1);
        else
            eventfd_read(answer_event_.get(), &count);
        has_answers_ = has_answers;
    }
    // Keep an alarm that is earlier than the first deadline. It may wake the program once when there is no answer to
    // collect. One such wake-up costs less than a system call for each question.
    const bool is_early_enough = alarm_ <= first_deadline && alarm_ > clock::now();
    if (is_early_enough || (alarm_ == first_deadline)) return;
    alarm_ = first_deadline;
    set_timer(timer_.get(), alarm_);
}

} // namespace client
