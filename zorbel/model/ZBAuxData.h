#pragma once

#include <boost/json/fwd.hpp>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

namespace zorbel {

/// A node of the tree of figures that a process reports beside its regions. Nodes never change once made.
class ZBAuxDataType {
  public:
    virtual ~ZBAuxDataType() = default;
    ZBAuxDataType(const ZBAuxDataType&) = delete;
    ZBAuxDataType& operator=(const ZBAuxDataType&) = delete;

    /// True for a dictionary, false for a figure.
    [[nodiscard]] virtual bool isContainer() const = 0;
    /// A number, or an object of such values.
    [[nodiscard]] virtual boost::json::value jsonRepresentation() const = 0;

  protected:
    ZBAuxDataType() = default;
};

using ZBAuxDatum = std::shared_ptr<const ZBAuxDataType>;

/// A figure: bytes, or a count.
class ZBAuxData final : public ZBAuxDataType {
  public:
    ZBAuxData(std::int64_t value, bool shouldAggregate) : _value(value), _aggregate(shouldAggregate) {}

    [[nodiscard]] std::int64_t value() const { return _value; }
    /// Whether the figure has a meaning summed over processes.
    [[nodiscard]] bool shouldAggregate() const { return _aggregate; }

    [[nodiscard]] bool isContainer() const override { return false; }
    [[nodiscard]] boost::json::value jsonRepresentation() const override;

  private:
    std::int64_t _value;
    bool _aggregate;
};

/// Figures and further dictionaries under their labels, ordered by label.
class ZBAuxDataDictionary final : public ZBAuxDataType {
  public:
    using Entries = std::map<std::string, ZBAuxDatum>;

    ZBAuxDataDictionary() = default;
    explicit ZBAuxDataDictionary(Entries entries) : _entries(std::move(entries)) {}

    [[nodiscard]] const Entries& entries() const { return _entries; }

    [[nodiscard]] bool isContainer() const override { return true; }
    [[nodiscard]] boost::json::value jsonRepresentation() const override;

    /// Sums this tree with another, which may be absent (null). Figures that do not aggregate drop out, and
    /// so do dictionaries that become empty; null when nothing remains. Whether a figure aggregates is
    /// decided by this tree's leaf where both have one. Trees that disagree on which labels are dictionaries
    /// stop the tool.
    [[nodiscard]] std::shared_ptr<const ZBAuxDataDictionary> mergeWithData(
        const ZBAuxDataDictionary* data) const;

    /// The step of mergeWithData for one label; the second node may be absent.
    static ZBAuxDatum mergeAuxDatum(const ZBAuxDatum& datum, const ZBAuxDatum& withDatum);

  private:
    Entries _entries;
};

}  // namespace zorbel
