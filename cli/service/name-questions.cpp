#include "cli/service/name-questions.h"

namespace cli
{

ats::result<std::optional<sa_mad_v2_t>> name_questions::ask(kernel::machine& machine, const sa_mad_v2_t& request)
{
    std::unique_ptr<world::sa_questions> client = take_idle_client();
    if (!client || !client->is_usable()) {
        client.reset(); // before another client joins
        auto result = world::sa_questions::open(machine);
        if (!result) return ats::pass_on(result);
        client = std::move(*result);
    }
    std::optional<sa_mad_v2_t> answer = client->ask(request);
    const std::lock_guard lock(mutex_);
    idle_clients_.push_back(std::move(client));
    return answer;
}

std::unique_ptr<world::sa_questions> name_questions::take_idle_client()
{
    const std::lock_guard lock(mutex_);
    if (idle_clients_.empty()) return nullptr;
    std::unique_ptr<world::sa_questions> client = std::move(idle_clients_.back());
    idle_clients_.pop_back();
    return client;
}

void name_questions::close()
{
    const std::lock_guard lock(mutex_);
    idle_clients_.clear();
}

} // namespace cli
