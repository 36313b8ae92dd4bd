// The GSI layer: what it puts on the wire, and how it gives datagrams back.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/stack/gsi-service.h"
#include "tests/stack/fake-hca.h"
#include "tests/stack/gsi-client.h"

using testing::ElementsAre;

namespace
{

TEST(gsi, supplies_on_the_wire_what_clients_leave_to_it)
{
    machine_with_fake at;
    at.run([&] {
        gsi_client client;
        gsi_dtgrm_t* datagram = client.make();
        datagram->rlid = 7;
        datagram->sl = 3;
        datagram->path_bits = 2;
        datagram->static_rate = 5;
        uint64_t id = 0;
        ASSERT_EQ(gsi_post_send_dtgrm(client.classes[1], datagram, &id), 0);
        EXPECT_THAT(client.lines, ElementsAre()) << "a completion never comes inside the post";
        ASSERT_NE(client.post(1), id);
        client.close();
        EXPECT_THAT(client.lines, ElementsAre("sent 1 on port 2", "sent 2"));

        ASSERT_EQ(at.hca.sent.size(), 2u);
        const auto& [port, to, mad] = at.hca.sent[0];
        EXPECT_EQ(port, 2);
        EXPECT_EQ(to.lid, 7);
        EXPECT_EQ(to.sl, 3);
        EXPECT_EQ(to.path_bits, 2);
        EXPECT_EQ(to.static_rate, 5);
        EXPECT_EQ(to.qpn, 1u);
        EXPECT_EQ(to.q_key, 0x80010000u);
        EXPECT_EQ(to.p_key_index, 0);
        sa_mad_v2_t expected = test::request(MAD_METHOD_GET, test::mask_gid_lookup, {}, id); // in wire order
        EXPECT_EQ(mad, test::bytes_of(expected));
    });
}

} // namespace
