// Shared-memory channels and the transfers they carry, in one process: the
// section and events as the peer would get them, and every way a transfer
// from an untrusted peer can be wrong.

#include "common/ProcessProbe.h"
#include "apps/tamsel/lib/ipc/ipclib/ipclibLinkChannelSharedMemLinux.h"
#include <tamsel/ipc/ipclibTransfer.h>

#include "platform/LittleEndian.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <dirent.h>
#include <random>

using namespace tamsel::ipc;

namespace {

std::vector<uint8_t> Random(size_t size, uint32_t seed)
{
    std::mt19937 rng(seed);
    std::vector<uint8_t> out(size);
    for (auto& b : out)
        b = static_cast<uint8_t>(rng());
    return out;
}

} // namespace

TEST(KxCrc32, FastAndBytewiseAgree)
{
    const char* check = "123456789";
    EXPECT_EQ(kxCrc32Bytewise(reinterpret_cast<const uint8_t*>(check), 9), 0xCBF43926u);
    EXPECT_EQ(kxCrc32(reinterpret_cast<const uint8_t*>(check), 9), 0xCBF43926u);
    EXPECT_EQ(kxCrc32(nullptr, 0), 0u);
    for (size_t size : {1u, 3u, 15u, 16u, 17u, 63u, 64u, 65u, 255u, 4096u, 65537u, 1048575u}) {
        const auto data = Random(size, static_cast<uint32_t>(size));
        EXPECT_EQ(kxCrc32(data.data(), size), kxCrc32Bytewise(data.data(), size)) << size;
        // Unaligned starts too.
        EXPECT_EQ(kxCrc32(data.data() + 1, size - 1), kxCrc32Bytewise(data.data() + 1, size - 1)) << size;
    }
}

TEST(KxIpclibLinkChannel, APeerSeesTheSameSectionAndEventsAndCannotResizeIt)
{
    const size_t before = OpenDescriptors();
    {
        KxIpclibLinkChannelSharedMemLinux ours(65536);
        int error = 0;
        ASSERT_EQ(ours.create(error), 0) << error;
        KxIpclibLinkChannelResourceLinux handed;
        ASSERT_EQ(ours.duplicateHandles(handed, error), 0);
        // Truncating the sealed section is refused, so a mapping can never fault.
        EXPECT_NE(::ftruncate(handed.section.get(), 4096), 0);
        EXPECT_EQ(errno, EPERM);

        KxIpclibLinkChannelSharedMemLinux theirs(65536);
        ASSERT_EQ(theirs.attach(std::move(handed), error), 0) << error;
        ours.view()[65535] = 0x5A;
        EXPECT_EQ(theirs.view()[65535], 0x5A);
        ours.signalDataReady();
        EXPECT_TRUE(KxIpclibLinkChannelSharedMemLinux::Consume(theirs.dataReadyEvent()));
        EXPECT_FALSE(KxIpclibLinkChannelSharedMemLinux::Consume(theirs.dataReadyEvent()));  // auto-reset
        theirs.signalBufferFree();
        EXPECT_TRUE(KxIpclibLinkChannelSharedMemLinux::Consume(ours.bufferFreeEvent()));

        // A section of another size, or one that is not sealed, is refused before mapping.
        KxIpclibLinkChannelResourceLinux wrongSize;
        ASSERT_EQ(ours.duplicateHandles(wrongSize, error), 0);
        KxIpclibLinkChannelSharedMemLinux other(4096);
        EXPECT_EQ(other.attach(std::move(wrongSize), error), 1);
        EXPECT_EQ(error, EINVAL);
        KxIpclibLinkChannelResourceLinux unsealed;
        ASSERT_EQ(ours.duplicateHandles(unsealed, error), 0);
        unsealed.section.reset(::memfd_create("unsealed", MFD_CLOEXEC));
        ASSERT_EQ(::ftruncate(unsealed.section.get(), 65536), 0);
        KxIpclibLinkChannelSharedMemLinux another(65536);
        EXPECT_EQ(another.attach(std::move(unsealed), error), 1);
        EXPECT_EQ(another.view(), nullptr);
    }
    EXPECT_EQ(OpenDescriptors(), before);
}

namespace {

constexpr uint32_t kSection = 8192;

// Writes one transfer holding `messages` as a writer would, at sequence `seq`.
std::vector<uint8_t> Transfer(const std::vector<std::vector<uint8_t>>& messages, uint64_t seq)
{
    std::vector<uint8_t> section(kSection, 0xCC);
    uint32_t used = KxIpclibTransferHeaderSize;
    uint32_t blocks = 0;
    for (const auto& data : messages) {
        KxIpclibMsg msg(KxIpclibMsgType::Msg, 0, 0, nullptr, 0x53, 0x54, static_cast<uint32_t>(data.size()),
                        data.data(), nullptr);
        used += writeBlock(msg, section.data() + used, kSection - used);
        ++blocks;
    }
    finishTransfer(section.data(), used, blocks, seq);
    return section;
}

struct Read {
    KxIpcStatusCode status;
    std::vector<std::vector<uint8_t>> payloads;
};

Read ReadOne(const std::vector<uint8_t>& section, uint64_t& recvSeqNo)
{
    std::vector<uint8_t> buffer(kSection);
    Read result;
    result.status = readTransfer(section.data(), kSection, buffer.data(), recvSeqNo, [&](const KxIpclibBlock& block) {
        result.payloads.emplace_back(block.payload, block.payload + block.header.payloadLength);
        return KxIpcStatusSuccess;
    });
    return result;
}

// Sets a 32-bit field of a test transfer (checked, so a mistake in a test fails loudly).
void Put32(std::vector<uint8_t>& section, size_t offset, uint32_t value)
{
    uint8_t bytes[4];
    tolv::platform::StoreLe<uint32_t>(bytes, value);
    for (size_t i = 0; i < 4; ++i)
        section.at(offset + i) = bytes[i];
}

// Rewrites the CRC after a deliberate change, so that the change itself is what is judged.
void Reseal(std::vector<uint8_t>& section)
{
    const uint32_t size = tolv::platform::LoadLe<uint32_t>(section.data() + 20);
    tolv::platform::StoreLe<uint32_t>(section.data() + 4, 0);
    tolv::platform::StoreLe<uint32_t>(section.data() + 4, kxCrc32Bytewise(section.data(), std::min<uint32_t>(size, kSection)));
}

} // namespace

TEST(KxIpclibTransfer, BlocksComeOutAsTheyWentIn)
{
    // An empty message is one block of header alone, and valid.
    const std::vector<std::vector<uint8_t>> messages = {Random(1, 1), {}, Random(500, 2), Random(3000, 3)};
    const auto section = Transfer(messages, 1);
    EXPECT_EQ(tolv::platform::LoadLe<uint32_t>(section.data() + KxIpclibTransferHeaderSize + 41 + 28), 40u);
    uint64_t recvSeqNo = 0;
    auto first = ReadOne(Transfer(messages, 1), recvSeqNo);
    EXPECT_EQ(first.status, KxIpcStatusSuccess);
    EXPECT_EQ(first.payloads, messages);
    EXPECT_EQ(ReadOne(Transfer(messages, 2), recvSeqNo).status, KxIpcStatusSuccess);
    EXPECT_EQ(recvSeqNo, 2u);
}

TEST(KxIpclibTransfer, EveryFaultFailsTheWholeTransferAndDeliversNothing)
{
    const std::vector<std::vector<uint8_t>> messages = {Random(100, 1), Random(200, 2)};
    const auto good = Transfer(messages, 1);
    auto expectRefused = [&](std::vector<uint8_t> section, uint64_t recvSeqNo, const char* what) {
        const auto read = ReadOne(section, recvSeqNo);
        EXPECT_EQ(read.status, KxIpcStatusProtocolError) << what;
        EXPECT_TRUE(read.payloads.empty()) << what;
    };
    auto corrupt = good;
    corrupt[300] ^= 1;
    expectRefused(corrupt, 0, "a flipped payload bit");
    expectRefused(good, 1, "a repeated sequence number");
    expectRefused(Transfer(messages, 3), 1, "a skipped sequence number");

    auto tooSmall = good;
    Put32(tooSmall, 20, 63);
    Reseal(tooSmall);
    expectRefused(tooSmall, 0, "a size below 64");
    auto tooBig = good;
    Put32(tooBig, 20, kSection + 1);
    expectRefused(tooBig, 0, "a size past the section");
    auto headerOnly = good;
    Put32(headerOnly, 20, 27);
    expectRefused(headerOnly, 0, "a size below the header");

    auto noBlocks = good;
    Put32(noBlocks, 24, 0);
    Reseal(noBlocks);
    expectRefused(noBlocks, 0, "no blocks");
    auto moreBlocks = good;
    Put32(moreBlocks, 24, 3);
    Reseal(moreBlocks);
    expectRefused(moreBlocks, 0, "more blocks than the transfer holds");

    // The second block claims more bytes than the transfer has: the first,
    // well-formed block must not be delivered either.
    auto runsPast = good;
    const uint32_t second = KxIpclibTransferHeaderSize + 40 + 100;
    Put32(runsPast, second + 28, 40 + 5000);
    Put32(runsPast, second + 32, 5000);
    Put32(runsPast, second + 36, 5000);
    Reseal(runsPast);
    expectRefused(runsPast, 0, "a block running past the transfer");

    auto controlWithPayload = good;
    Put32(controlWithPayload, second + 0, static_cast<uint32_t>(KxIpclibMsgType::Close));
    Reseal(controlWithPayload);
    expectRefused(controlWithPayload, 0, "a control block with payload");
}
