#include "model/ZBAuxData.h"

#include <boost/json/object.hpp>
#include <boost/json/value.hpp>

#include "base/Assert.h"

namespace zorbel {

boost::json::value ZBAuxData::jsonRepresentation() const { return _value; }

boost::json::value ZBAuxDataDictionary::jsonRepresentation() const {
    boost::json::object object;
    for (const auto& [label, datum] : _entries) object.emplace(label, datum->jsonRepresentation());
    return object;
}

ZBAuxDatum ZBAuxDataDictionary::mergeAuxDatum(const ZBAuxDatum& datum, const ZBAuxDatum& withDatum) {
    ZB_ASSERT(!withDatum || datum->isContainer() == withDatum->isContainer(),
              "!datum2 || datum1.isContainer == datum2.isContainer");
    if (datum->isContainer()) {
        const auto& dictionary = static_cast<const ZBAuxDataDictionary&>(*datum);
        return dictionary.mergeWithData(static_cast<const ZBAuxDataDictionary*>(withDatum.get()));
    }
    const auto& leaf = static_cast<const ZBAuxData&>(*datum);
    if (!leaf.shouldAggregate()) return nullptr;
    if (!withDatum) return datum;
    // Unsigned, so that an overflow wraps around.
    const auto sum = static_cast<std::uint64_t>(leaf.value()) +
                     static_cast<std::uint64_t>(static_cast<const ZBAuxData&>(*withDatum).value());
    return std::make_shared<ZBAuxData>(static_cast<std::int64_t>(sum), true);
}

std::shared_ptr<const ZBAuxDataDictionary> ZBAuxDataDictionary::mergeWithData(
    const ZBAuxDataDictionary* data) const {
    Entries merged;
    for (const auto& [label, datum] : _entries) {
        ZBAuxDatum other;
        if (data != nullptr)
            if (const auto found = data->_entries.find(label); found != data->_entries.end())
                other = found->second;
        if (ZBAuxDatum sum = mergeAuxDatum(datum, other)) merged.emplace(label, std::move(sum));
    }
    if (data != nullptr)
        for (const auto& [label, datum] : data->_entries)
            if (!_entries.contains(label))
                if (ZBAuxDatum kept = mergeAuxDatum(datum, nullptr)) merged.emplace(label, std::move(kept));
    if (merged.empty()) return nullptr;
    return std::make_shared<ZBAuxDataDictionary>(std::move(merged));
}

}  // namespace zorbel
