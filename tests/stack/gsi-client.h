// A client of GSI that owns a pool and a class on every port, and writes down what it is told.
#pragma once

#include <gtest/gtest.h>

#include "gsi.h"
#include "tests/fabric/requests.h"

struct gsi_client {
    explicit gsi_client(int32_t pool_size = 16, int32_t ports = 2, const char* hca = "mthca0")
    {
        EXPECT_EQ(gsi_dtgrm_pool_create_named(pool_size, &pool, "client"), 0);
        kq_hca_name name{};
        strncpy(name.name, hca, sizeof name.name - 1);
        for (int32_t port = 1; port <= ports; ++port)
            EXPECT_EQ(gsi_register_class(MAD_CLASS_SUBN_ADM, MAD_CLASS_VERSION_SUBN_ADM, &name, port, 0, 0, sent,
                                         received, this, &classes[port - 1]),
                      0);
    }
    gsi_client(const gsi_client&) = delete;
    gsi_client& operator=(const gsi_client&) = delete;

    void close()
    {
        for (gsi_class_handle_t handle : classes)
            while (handle && gsi_deregister_class(handle) != 0) schedule_timeout_uninterruptible(1);
        EXPECT_EQ(gsi_dtgrm_pool_destroy(pool), 0);
    }

    // A datagram to the SA at LID 1, as the module makes them; null when the pool is empty.
    gsi_dtgrm_t* make(const sa_mad_v2_t& mad = test::request(MAD_METHOD_GET, test::mask_gid_lookup, {}, 0)) const
    {
        gsi_dtgrm_t* datagram = nullptr;
        if (gsi_dtgrm_pool_get(pool, &datagram) != 0) return nullptr;
        memcpy(datagram->mad, &mad, MAD_SIZE);
        mad_hdr_t header;
        memcpy(&header, datagram->mad, sizeof header);
        header.attrib_id = SA_ATTR_SERVICE_RECORD;
        memcpy(datagram->mad, &header, sizeof header);
        datagram->rqp = 1;
        datagram->rlid = 1;
        return datagram;
    }

    // Posts one; its transaction ID, or 0.
    uint64_t post(int port = 1)
    {
        uint64_t transaction_id = 0;
        gsi_dtgrm_t* datagram = make();
        if (datagram && gsi_post_send_dtgrm(classes[port - 1], datagram, &transaction_id) != 0)
            gsi_dtgrm_pool_put(datagram);
        return transaction_id;
    }

    static void sent(gsi_class_handle_t handle, void* context, gsi_dtgrm_t* datagram)
    {
        static_cast<gsi_client*>(context)->told("sent ", handle, datagram);
    }
    static void received(gsi_class_handle_t handle, void* context, gsi_dtgrm_t* datagram)
    {
        static_cast<gsi_client*>(context)->told("got ", handle, datagram);
    }

    void told(const char* what, gsi_class_handle_t handle, gsi_dtgrm_t* datagram)
    {
        EXPECT_EQ(running++, 0) << "one at a time";
        mad_hdr_t header;
        memcpy(&header, datagram->mad, sizeof header);
        EXPECT_EQ(header.attrib_id, SA_ATTR_SERVICE_RECORD) << "host order on the client's side";
        lines.push_back(what + std::to_string(from_wire(header.transact_id)) +
                        (handle == classes[0] ? "" : " on port 2"));
        if (then) then(datagram);
        if (keep) {
            kept.push_back(datagram);
        } else {
            gsi_dtgrm_pool_put(datagram);
        }
        --running;
    }

    gsi_dtgrm_pool_handle_t pool = nullptr;
    gsi_class_handle_t classes[2] = {};
    std::vector<std::string> lines; // "sent 1", "got 1 on port 2": transaction IDs
    std::function<void(gsi_dtgrm_t*)> then;
    bool keep = false;
    std::vector<gsi_dtgrm_t*> kept;
    int running = 0;
};
