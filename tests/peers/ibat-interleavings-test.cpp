// Every question to IBAT is settled exactly once, whatever meets whatever: answers, duplicates, time-outs, withdrawals,
// detaches and the unloading.
#include "tests/peers/campaign.h"
#include "tests/peers/ibat-world.h"

namespace
{

class ibat_campaign : public campaign<ibat_world>
{
  public:
    explicit ibat_campaign(std::unique_ptr<kernel::executor> runs_it)
        : campaign(std::move(runs_it), "ibat_retry_ticks=20 ibat_retries=2 ibat_lifetime_seconds=1 "
                                       "ibat_negative_seconds=0 ibat_capacity=3")
    {
    }

  private:
    static uint32_t any_address() { return 1 + dice() % 4; }

    ibat_stat_t ask(question& asked) override
    {
        ibat_arp_data_t record{};
        return world.get_ib_data(any_address(), &record, question::called_back, &asked);
    }

    // Answers some requests before it returns, refuses some, is slow with some.
    static ibat_stat_t send_arp(ibat_arp_data_t* arp_data, void* self, int)
    {
        auto* it = static_cast<ibat_campaign*>(self);
        it->called_through_attachment();
        if (one_in(4)) it->pause(25);
        if (one_in(4)) it->answer(arp_data->dst_ip);
        it->called_through_attachment();
        return one_in(5) ? ibat_stat_error : ibat_stat_ok;
    }

    void answer(uint32_t ip)
    {
        const kq_gid_t gid = gid_of(1 + dice() % 3);
        world.reply_here(one_in(4)   ? world.absence(ip)
                         : one_in(6) ? world.own(ip, gid, 1 + dice() % 2)
                                     : world.answer(ip, gid));
    }

    void network() override
    {
        for (int i = 0; i < 60; ++i) {
            if (one_in(2)) pause(8);
            answer(any_address());
            if (one_in(8)) world.flush();
        }
    }

    void service() override
    {
        for (int i = 0; i < 6; ++i) {
            is_attached = true;
            EXPECT_EQ(world.attach(nullptr, send_arp, this, &world.handle), ibat_stat_ok);
            pause(40);
            EXPECT_EQ(world.detach(world.handle), ibat_stat_ok);
            is_attached = false;
        }
        is_attached = true;
        EXPECT_EQ(world.attach(nullptr, send_arp, this, &world.handle), ibat_stat_ok);
    }
};

TEST(ibat_interleavings, every_question_is_settled_once_in_any_simulated_order)
{
    run_simulated_campaigns<ibat_campaign>();
}

TEST(ibat_interleavings, every_question_is_settled_once_on_threads)
{
    run_threaded_campaigns<ibat_campaign>();
}

} // namespace
