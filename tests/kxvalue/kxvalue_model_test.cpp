// Values against a model that shares nothing: the same random changes are made to both, and after
// each step every value must show what its model shows.
#include <array>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/kxvalue/valuetexts.hpp"

namespace KX {
namespace {

/// A value that copies deeply: a number, or an array of its like.
struct Model {
  bool isArray = false;
  int number = 0;
  std::vector<Model> elements;

  std::string toString() const {
    if (!isArray) return std::to_string(number);
    std::string text = "[";
    for (std::size_t i = 0; i < elements.size(); ++i) {
      if (i > 0) text += ',';
      text += elements[i].toString();
    }
    return text += ']';
  }
};

/// Four values with their models, and the changes that are made to one place in them.
class Pairs {
 public:
  explicit Pairs(unsigned seed) : mRandom(seed) {
    for (KXValue& value : mValues) value = 0;
  }

  void step() {
    int const target = pick(kCount);
    int const source = pick(kCount);
    KXValue* value = &mValues[target];
    Model* model = &mModels[target];
    // Copied before the descent: references into a value end when it is copied.
    KXValue const sourceValue = mValues[source];
    Model const sourceModel = mModels[source];
    while (model->isArray && !model->elements.empty() && pick(3) != 0) {
      int const index = pick(static_cast<int>(model->elements.size()));
      value = &(*value)[index];
      model = &model->elements[static_cast<std::size_t>(index)];
    }
    change(*value, *model, sourceValue, sourceModel);
  }

  void check() const {
    for (int i = 0; i < kCount; ++i) ASSERT_EQ(mValues[i].toString(1), mModels[i].toString());
  }

 private:
  static constexpr int kCount = 4;

  int pick(int count) { return std::uniform_int_distribution<int>(0, count - 1)(mRandom); }

  void change(KXValue& value, Model& model, KXValue const& otherValue, Model const& otherModel) {
    int const number = pick(1000);
    bool const isSmall = otherModel.toString().size() < 200;
    switch (pick(5)) {
      case 0:
        value = number;
        model = Model{false, number, {}};
        break;
      case 1:
        value = isSmall ? otherValue : KXValue(number);
        model = isSmall ? otherModel : Model{false, number, {}};
        break;
      case 2:
        if (!model.isArray) value = KXValue::arrayOf();
        model.isArray = true;
        value.arrayPush(isSmall ? otherValue : KXValue(number));
        model.elements.push_back(isSmall ? otherModel : Model{false, number, {}});
        break;
      case 3:
        resize(value, model, number % 4);
        break;
      default:
        value.arraySetSize(0);
        model = Model{true, 0, {}};
        break;
    }
  }

  static void resize(KXValue& value, Model& model, int size) {
    std::size_t const kept = model.isArray ? model.elements.size() : 0;
    value.arraySetSize(size);
    for (int i = static_cast<int>(kept); i < size; ++i) value[i] = i;
    model.isArray = true;
    model.elements.resize(static_cast<std::size_t>(size));
    for (int i = static_cast<int>(kept); i < size; ++i)
      model.elements[static_cast<std::size_t>(i)] = Model{false, i, {}};
  }

  std::mt19937 mRandom;
  std::array<KXValue, kCount> mValues;
  std::array<Model, kCount> mModels;
};

TEST(ValueModel, AgreesAfterEveryRandomChange) {
  for (unsigned seed = 1; seed <= 50; ++seed) {
    SCOPED_TRACE(seed);
    Pairs pairs(seed);
    for (int step = 0; step < 300; ++step) {
      pairs.step();
      pairs.check();
      if (HasFatalFailure()) return;
    }
  }
}

}  // namespace
}  // namespace KX
