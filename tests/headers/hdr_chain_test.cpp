// The collected header text and the ownership of chains and address lists.
#include <gtest/gtest.h>

#include <string>

#include "headers/headers.h"

namespace {

TEST(HeaderText, CollectsLinesAsRead) {
    tw::HeaderText text;
    text.append("To: a\r\n");
    const char with_nul[] = " b\0hidden\r\n";
    text.append(with_nul); // a line read keeps only its text up to a NUL
    const std::string big(5000, 'x');
    text.append(big);
    EXPECT_EQ(text.view(), "To: a\r\n b" + big);
    EXPECT_FALSE(text.lost());
}

TEST(HeaderChain, AddressListsOwnTheirChains) {
    // Freed at the end of scope; the leak checker of a sanitizer build sees
    // any element, text or charset left behind.
    tw::OwnedAddressLists owned;
    mime_address_lists &lists = owned.lists;
    EXPECT_EQ(lists.to, nullptr);
    EXPECT_EQ(lists.subject, nullptr);
    char to[] = "=?cs?q?a?= b";
    char subject[] = "=?cs?B?YQ==?=";
    tw::mime_decode_field_value(nullptr, to, sizeof to, nullptr, &lists.to);
    tw::mime_decode_field_value(nullptr, subject, sizeof subject, nullptr, &lists.subject);
    tw::mime_decode_field_value(nullptr, subject, sizeof subject, nullptr, &lists.subject);
    EXPECT_EQ(tw::mime_join_chain_text(lists.to), "ab");
    ASSERT_NE(lists.subject->next, nullptr) << "a second line extends the chain";
    EXPECT_EQ(tw::mime_join_chain_text(lists.subject), "aa");
}

} // namespace
