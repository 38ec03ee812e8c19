// The live-object list through its internal entry points: identity by address, one entry per
// object, the count line per removal, and the stop by the removal that empties it.

#include <gtest/gtest.h>

#include "kiv_db_test_util.h"
#include "kiv_test_support.h"

namespace {

std::string left(int n) { return "left objects in database reference count: " + std::to_string(n) + "\n"; }

TEST(LiveObjects, EntriesAreUniqueAndRemovalsCountDown) {
    kiv_database_init();
    const kiv_thread_service_handle service = kiv_thread_service_find("database");
    kiv_test::cout_capture out;
    const boost::shared_ptr<_kiv_object> a(new _kiv_object), b(new _kiv_object), c(new _kiv_object);
    kiv_database_ref(a);
    kiv_database_ref(b);
    kiv_database_ref(boost::shared_ptr<_kiv_object>(b));  // same object: no second entry
    kiv_database_ref(c);
    EXPECT_EQ(out.take(), "");
    EXPECT_EQ(b.use_count(), 2) << "the list holds one reference";

    kiv_database_unref(b);  // the middle one
    EXPECT_EQ(out.take(), left(2));
    EXPECT_EQ(b.use_count(), 1);
    kiv_database_unref(b);  // not listed any more: nothing
    EXPECT_EQ(out.take(), "");

    // With the shutdown requested, only the removal that empties the list stops the service.
    kiv_thread_service_join(service, 0);
    EXPECT_EQ(out.take(), "DATABASE SERVICE SHOT DONW REQUEST\n");
    kiv_database_unref(a);
    EXPECT_EQ(out.take(), left(1));
    EXPECT_FALSE(kiv_thread_service_wait(service, 50));
    kiv_database_unref(c);
    ASSERT_TRUE(kiv_thread_service_wait(service, 10000));
    EXPECT_EQ(out.take(), left(0) + "DATABASE THREAD SERVICE STOPPED\n" + "DATABASE SERVICE DONE\n");

    // An object entered after the stop is tracked as before; its removal asks for the stop again,
    // which the finished (empty) service handle only warns about.
    kiv_database_ref(a);
    kiv_database_unref(a);
    EXPECT_EQ(out.take(), left(0) + kiv_test::null_object_line("kiv_thread_service_stop"));
    kiv_database_unref(c);
    EXPECT_EQ(out.take(), "");
}

TEST(LiveObjects, RemovingTheLastObjectWithoutAJoinRequestsNoStop) {
    kiv_database_init();
    const kiv_thread_service_handle service = kiv_thread_service_find("database");
    kiv_test::cout_capture out;
    const boost::shared_ptr<_kiv_object> only(new _kiv_object);
    kiv_database_ref(only);
    kiv_database_unref(only);
    EXPECT_EQ(out.take(), left(0));
    EXPECT_FALSE(kiv_thread_service_wait(service, 50));
    ASSERT_TRUE(kiv_test::join_database_service());
}

}  // namespace
