#include "linux/pages/Lineages.h"

#include <algorithm>
#include <span>
#include <utility>

#include "base/Assert.h"

namespace zorbel {

Lineages::~Lineages() {
    for (const auto& block : _blocks) delete block.load(std::memory_order_relaxed);
}

Lineages::Member Lineages::addMember() {
    const Member member = _count.fetch_add(1, std::memory_order_relaxed);
    ZB_ASSERT(member < kBlockSize * kMostBlocks, "member < kBlockSize * kMostBlocks");
    std::atomic<Block*>& entry = _blocks[member / kBlockSize];
    if (entry.load(std::memory_order_acquire) == nullptr) {
        Block* none = nullptr;
        auto mine = std::make_unique<Block>();
        if (entry.compare_exchange_strong(none, mine.get(), std::memory_order_acq_rel))
            static_cast<void>(mine.release());
    }
    _record(member).parent.store(member, std::memory_order_relaxed);
    return member;
}

void Lineages::holdFrames(Member member, std::uint64_t frame, std::uint64_t count) {
    Record& record = _record(member);
    while (count > 0) {
        std::span<FrameTable::Word> words = _frames.from(frame);
        words = words.first(std::min<std::size_t>(words.size(), count));
        for (FrameTable::Word& word : words) _hold(member, record, word, kResident);
        frame += words.size();
        count -= words.size();
    }
}

void Lineages::_hold(Member member, Record& record, FrameTable::Word& word, Kind kind) {
    std::uint32_t known = word.load(std::memory_order_acquire);
    for (;;) {
        if (known == 0) {
            if (!word.compare_exchange_weak(known, member + 1, std::memory_order_acq_rel)) continue;
            record.alone[kind].fetch_add(1, std::memory_order_relaxed);
            return;
        }
        const Member first = (known & ~kShared) - 1;
        if (first == member) return;  // Equal pages of one region, merged by the kernel: counted already.
        if ((known & kShared) == 0) {
            if (!word.compare_exchange_weak(known, known | kShared, std::memory_order_acq_rel)) continue;
            _record(first).alone[kind].fetch_sub(1, std::memory_order_relaxed);
            ++record.shared[kind];
        }
        if (record.lastMet != first + 1) _unite(first, member);
        record.lastMet = first + 1;
        return;
    }
}

// The member with the lower number becomes the parent, so every path leads to the lowest number of its
// lineage.
void Lineages::_unite(Member a, Member b) {
    for (;;) {
        a = lineageOf(a);
        b = lineageOf(b);
        if (a == b) return;
        if (a > b) std::swap(a, b);
        if (_record(b).parent.compare_exchange_weak(b, a, std::memory_order_acq_rel)) return;
    }
}

Lineages::Member Lineages::lineageOf(Member member) const {
    for (;;) {
        std::atomic<Member>& parent = _record(member).parent;
        Member above = parent.load(std::memory_order_acquire);
        if (above == member) return member;
        const Member next = _record(above).parent.load(std::memory_order_acquire);
        if (next != above)
            parent.compare_exchange_weak(above, next, std::memory_order_acq_rel);  // Halves the path.
        member = next;
    }
}

HeldPages Lineages::aloneIn(Member member) const {
    const auto& alone = _record(member).alone;
    return {static_cast<std::uint64_t>(alone[kResident].load(std::memory_order_relaxed)),
            static_cast<std::uint64_t>(alone[kSwapped].load(std::memory_order_relaxed))};
}

HeldPages Lineages::sharedThrough(Member member) const {
    const auto& shared = _record(member).shared;
    return {static_cast<std::uint64_t>(shared[kResident]), static_cast<std::uint64_t>(shared[kSwapped])};
}

}  // namespace zorbel
