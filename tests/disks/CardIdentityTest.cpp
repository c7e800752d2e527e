#include "disks/CardIdentity.h"

#include "support/LoopImage.h"

namespace velmora {
namespace {

using test::LoopImage;

TEST(CardIdentity, TellsCardsOfOneLabelApart) {
    VELMORA_NEEDS(LoopImage::unavailable(LoopImage::Kind::ext4));
    LoopImage card(LoopImage::Kind::ext4, 0, "A001");
    const LoopImage other(LoopImage::Kind::ext4, 0, "A001");
    const auto identity = CardIdentity::of(card.path());
    ASSERT_TRUE(identity);
    EXPECT_NE(CardIdentity::of(other.path()), identity);
    std::filesystem::create_directory(card / "DCIM");
    EXPECT_EQ(CardIdentity::of(card / "DCIM"), identity) << "any folder of the card tells";
    const auto whole = CardIdentity::withVolume(card.path());
    ASSERT_TRUE(whole);
    EXPECT_EQ(whole->substr(0, identity->size() + 6), *identity + "|A001|");
    card.unmount();
    EXPECT_EQ(CardIdentity::of(card / "DCIM"), std::nullopt) << "the card is gone";
    EXPECT_NE(CardIdentity::withVolume(card.path()), whole) << "what is left is the folder that it was mounted on";
    card.mount();
    EXPECT_EQ(CardIdentity::withVolume(card.path()), whole) << "it came back";
}

TEST(CardIdentity, KnowsNothingOfWhatHasNoVolume) {
    EXPECT_EQ(CardIdentity::of("/nowhere/at/all"), std::nullopt);
    EXPECT_EQ(CardIdentity::of("/proc"), std::nullopt);
    EXPECT_EQ(CardIdentity::withVolume("/proc"), std::nullopt);
}

} // namespace
} // namespace velmora
