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

Lineages::Holder::~Holder() {
    _handOverTaken();
    Record& record = _lineages._record(_member);
    for (const std::size_t kind : {kResident, kSwapped}) {
        record.alone[kind].fetch_add(_alone[kind], std::memory_order_relaxed);
        record.shared[kind] += _shared[kind];
    }
}

inline void Lineages::Holder::_hold(FrameTable::Word& word, std::size_t kind) {
    const std::uint32_t known = word.load(std::memory_order_acquire);
    if (known == 0 || known != _lastMet) _holdKnown(word, known, kind);
}

void Lineages::Holder::holdFrames(std::uint64_t frame, std::uint64_t count) {
    while (count > 0) {
        std::span<FrameTable::Word> words = _lineages._frames.from(frame);
        words = words.first(std::min<std::size_t>(words.size(), count));
        for (FrameTable::Word& word : words) _hold(word, kResident);
        frame += words.size();
        count -= words.size();
    }
}

// Neighbours in a process are neighbours in memory, in one direction or the other, as often as not.
void Lineages::Holder::holdFrame(std::uint64_t frame) {
    if (frame - _nearFrame >= _near.size()) {
        _nearFrame = frame - frame % FrameTable::kTogether;
        _near = _lineages._frames.from(_nearFrame);
    }
    _hold(_near[frame - _nearFrame], kResident);
}

void Lineages::Holder::holdSlot(std::uint64_t slot) { _hold(_lineages._slots.at(slot), kSwapped); }

void Lineages::Holder::_holdKnown(FrameTable::Word& word, std::uint32_t known, std::size_t kind) {
    for (;;) {
        if (known == 0) {
            if (!word.compare_exchange_weak(known, _member + 1, std::memory_order_acq_rel)) continue;
            ++_alone[kind];
            return;
        }
        const Member first = (known & ~kShared) - 1;
        if (first == _member) return;  // Equal pages of one region, merged by the kernel: counted already.
        const bool wasAlone = (known & kShared) == 0;
        if (wasAlone && !word.compare_exchange_weak(known, known | kShared, std::memory_order_acq_rel))
            continue;
        if (_lastMet != (known | kShared)) {
            _handOverTaken();
            _lineages._unite(first, _member);
            _lastMet = known | kShared;
        }
        if (wasAlone) {
            ++_taken[kind];
            ++_shared[kind];
        }
        return;
    }
}

void Lineages::Holder::_handOverTaken() {
    if (_lastMet == 0) return;
    Record& record = _lineages._record((_lastMet & ~kShared) - 1);
    for (const std::size_t kind : {kResident, kSwapped}) {
        if (_taken[kind] != 0) record.alone[kind].fetch_sub(_taken[kind], std::memory_order_relaxed);
        _taken[kind] = 0;
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
