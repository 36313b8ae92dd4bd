// A GSI client with a datagram pool. It registers or joins the SA's class on one or two ports, and records one line for
// each callback.
#pragma once

#include <gtest/gtest.h>

#include "gsi.h"
#include "kernel/sync.h"
#include "tests/fabric/requests.h"

constexpr kq_hca_name mthca0{"mthca0"};

class gsi_client
{
  public:
    // If `joins` is true, the client joins the class that another client has registered.
    explicit gsi_client(int32_t pool_size = 16, int32_t ports = 2, bool joins = false)
    {
        EXPECT_EQ(gsi_dtgrm_pool_create_named(pool_size, &pool, "client"), 0);
        for (int32_t port = 1; port <= ports; ++port)
            EXPECT_EQ(joins ? gsi_join_class(MAD_CLASS_SUBN_ADM, MAD_CLASS_VERSION_SUBN_ADM, &mthca0, port, sent,
                                             received, this, &classes[port - 1])
                            : gsi_register_class(MAD_CLASS_SUBN_ADM, MAD_CLASS_VERSION_SUBN_ADM, &mthca0, port, 0, 0,
                                                 sent, received, this, &classes[port - 1]),
                      0);
    }
    gsi_client(const gsi_client&) = delete;
    gsi_client& operator=(const gsi_client&) = delete;

    void close() const
    {
        for (gsi_class_t* handle : classes)
            while (handle && gsi_deregister_class(handle) != 0) schedule_timeout_uninterruptible(1);
        EXPECT_EQ(gsi_dtgrm_pool_destroy(pool), 0);
    }

    // Takes a datagram from the pool and writes a request to the SA at LID 1 into it. Returns null if the pool is
    // empty.
    gsi_dtgrm_t* make() const
    {
        gsi_dtgrm_t* datagram;
        if (gsi_dtgrm_pool_get(pool, &datagram) != 0) return nullptr;
        sa_mad_v2_t mad = test::request(MAD_METHOD_GET, test::mask_gid_lookup, {}, 0);
        mad.hdr.attrib_id = SA_ATTR_SERVICE_RECORD;
        memcpy(datagram->mad, &mad, MAD_SIZE);
        datagram->rqp = 1;
        datagram->rlid = 1;
        return datagram;
    }

    void post(int port = 1)
    {
        gsi_dtgrm_t* datagram = make();
        ASSERT_TRUE(datagram);
        ASSERT_EQ(gsi_post_send_dtgrm(classes[port - 1], datagram, nullptr), 0);
    }

    gsi_dtgrm_pool_handle_t pool;
    gsi_class_handle_t classes[2] = {};
    std::function<void(gsi_dtgrm_t*)> action; // called in every callback
    bool keeps_datagrams = false;             // true: stores datagrams; false: returns them to the pool
    std::vector<gsi_dtgrm_t*> datagrams;      // stored if keeps_datagrams is true
    std::vector<std::string> lines;           // "sent 1", "got 1 on port 2"; the first number is the transaction ID

  private:
    static void sent(gsi_class_handle_t handle, void* self, gsi_dtgrm_t* datagram)
    {
        static_cast<gsi_client*>(self)->record("sent ", handle, datagram);
    }
    static void received(gsi_class_handle_t handle, void* self, gsi_dtgrm_t* datagram)
    {
        static_cast<gsi_client*>(self)->record("got ", handle, datagram);
    }
    void record(const char* event, gsi_class_handle_t handle, gsi_dtgrm_t* datagram)
    {
        EXPECT_FALSE(is_in_callback_) << "two callbacks run at the same time";
        is_in_callback_ = true;
        mad_hdr_t header;
        memcpy(&header, datagram->mad, sizeof header);
        EXPECT_EQ(header.attrib_id, SA_ATTR_SERVICE_RECORD) << "clients see host order";
        lines.push_back(event + std::to_string(from_wire(header.transact_id)) +
                        (handle == classes[0] ? "" : " on port 2"));
        if (action) action(datagram);
        if (keeps_datagrams)
            datagrams.push_back(datagram);
        else
            gsi_dtgrm_pool_put(datagram);
        is_in_callback_ = false;
    }
    bool is_in_callback_ = false;
};
