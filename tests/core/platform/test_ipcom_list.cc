#include "platform/ipcom_list.h"

#include <gtest/gtest.h>
#include <string>

namespace {

struct record {
    ipcom_list link;
    char name;
};

std::string names(const ipcom_list &head)
{
    std::string all;
    for (const auto *r = ipcom_first<record>(head); r != nullptr; r = ipcom_next(r))
        all += r->name;
    EXPECT_EQ(head.size, static_cast<int>(all.size()));
    return all;
}

TEST(ipcom_list, keeps_order_and_size)
{
    ipcom_list head;
    record a{{}, 'a'}, b{{}, 'b'}, c{{}, 'c'}, d{{}, 'd'};
    ipcom_list_init(&head);
    EXPECT_EQ(names(head), "");
    for (record *r : {&a, &b, &c})
        ipcom_list_insert_last(&head, &r->link);
    EXPECT_EQ(names(head), "abc");
    ipcom_list_insert_before(&b.link, &d.link);
    EXPECT_EQ(names(head), "adbc");
    ipcom_list_remove(&a.link);
    EXPECT_EQ(names(head), "dbc");
    ipcom_list_remove(&a.link);
    EXPECT_EQ(names(head), "dbc") << "a record in no list is left alone";
}

TEST(ipcom_list, moves_records_to_the_end_before_the_head)
{
    ipcom_list head;
    record a{{}, 'a'}, b{{}, 'b'};
    ipcom_list_init(&head);
    ipcom_list_insert_last(&head, &a.link);
    ipcom_list_remove(&a.link);
    ipcom_list_insert_before(&head, &a.link);
    EXPECT_EQ(names(head), "a");
    ipcom_list_insert_last(&head, &b.link);
    ipcom_list_remove(&a.link);
    ipcom_list_insert_before(&head, &a.link);
    EXPECT_EQ(names(head), "ba");
}

TEST(ipcom_list, removal_lowers_the_size_of_the_list_that_holds_the_record)
{
    ipcom_list one, other;
    record a{{}, 'a'}, b{{}, 'b'};
    ipcom_list_init(&one);
    ipcom_list_init(&other);
    ipcom_list_insert_last(&one, &a.link);
    ipcom_list_insert_last(&other, &b.link);
    ipcom_list_remove(&b.link);
    EXPECT_EQ(names(one), "a");
    EXPECT_EQ(names(other), "");
}

} // namespace
