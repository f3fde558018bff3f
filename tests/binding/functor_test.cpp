#include <binding/kxfunctor.hpp>

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <kxerror/kxerror.hpp>
#include <kxvalue/kxvalue.hpp>

namespace KX {
namespace {

using Texts = std::vector<std::string>;

// Records which member was entered with what.
class Subject {
 public:
  virtual ~Subject() = default;

  void nothing() { entered = "nothing"; }
  bool yes() { return true; }
  int number() { return 5; }
  double fraction() { return 0.5; }
  std::string text() { return "text"; }
  Texts texts() { return {"a", "b"}; }
  KXValue value() { return KXValue(Texts{"v"}); }
  void takeText(std::string const& text) { entered = "takeText " + text; }
  void takeInt(int const& number) { entered = "takeInt " + std::to_string(number); }
  void takeTexts(Texts const& texts) { entered = "takeTexts " + std::to_string(texts.size()); }
  void takeThree(std::string const& name, KXValue const& value, KXValue const& message) {
    entered = name + " " + value.toString(2) + " " + message.toString(2);
  }
  int takeIntBoolText(int const&, bool const&, std::string const&) {
    entered = "takeIntBoolText";
    return 1;
  }
  std::string takeTwo(int const& number, std::string const& text) {
    return text + std::to_string(number);
  }
  std::string byValue(std::string text, int number) { return text + std::to_string(number); }
  int getConstant() const { return 9; }
  int addConstant(int const& number) const { return 9 + number; }
  int takeFour(int a, int b, int c, int d) { return ((a * 10 + b) * 10 + c) * 10 + d; }
  void fail() { throw KXError("Module", "fail", "as told", "file", 12); }
  void failOtherwise() { throw std::runtime_error("otherwise"); }
  virtual std::string who() { return "base"; }

  std::string entered;
};

class Other {
 public:
  virtual ~Other() = default;
  virtual int id() { return mId; }

 protected:
  int mId = 1;
};

// The second base makes a member pointer's adjustment count.
class Derived : public Subject, public Other {
 public:
  Derived() { mId = 2; }
  std::string who() override { return "derived"; }
};

template <class... T>
KXValue callWith(boost::shared_ptr<KXFunctorBase> const& functor, T const&... arguments) {
  KXValue result("untouched");
  functor->call(KXValue::arrayOf(KXValue(arguments)...), result);
  return result;
}

TEST(Functor, ConvertsEachResultTypeIntoAValue) {
  Subject subject;

  EXPECT_EQ(callWith(createFunctor(&subject, &Subject::yes)), KXValue(true));
  EXPECT_EQ(callWith(createFunctor(&subject, &Subject::number)), KXValue(5));
  EXPECT_EQ(callWith(createFunctor(&subject, &Subject::fraction)), KXValue(0.5));
  EXPECT_EQ(callWith(createFunctor(&subject, &Subject::text)), KXValue("text"));
  EXPECT_EQ(callWith(createFunctor(&subject, &Subject::texts)), KXValue(Texts{"a", "b"}));
  EXPECT_EQ(callWith(createFunctor(&subject, &Subject::value)), KXValue(Texts{"v"}));
}

TEST(Functor, LeavesTheResultOfAMethodThatReturnsNothing) {
  Subject subject;

  EXPECT_EQ(callWith(createFunctor(&subject, &Subject::nothing)), KXValue("untouched"));
  EXPECT_EQ(callWith(createFunctor(&subject, &Subject::takeInt), 3), KXValue("untouched"));
  EXPECT_EQ(subject.entered, "takeInt 3");
}

TEST(Functor, HandsTheConvertedArgumentsToTheMember) {
  Subject subject;

  callWith(createFunctor(&subject, &Subject::takeText), "hello");
  EXPECT_EQ(subject.entered, "takeText hello");
  callWith(createFunctor(&subject, &Subject::takeTexts), Texts{"a", "b", "c"});
  EXPECT_EQ(subject.entered, "takeTexts 3");
  callWith(createFunctor(&subject, &Subject::takeThree), "key", 5, KXValue());
  EXPECT_EQ(subject.entered, "key int(5) " + KXValue().toString(2));
}

TEST(Functor, OfEachArityIsOfItsOwnClass) {
  Subject subject;
  using detail::KXFunctor_0;
  using detail::KXFunctor_1;
  using detail::KXFunctor_2;
  using detail::KXFunctor_3;

  auto const zero = createFunctor(&subject, &Subject::yes);
  auto const one = createFunctor(&subject, &Subject::takeTexts);
  auto const two = createFunctor(&subject, &Subject::takeTwo);
  auto const three = createFunctor(&subject, &Subject::takeThree);

  EXPECT_TRUE((dynamic_cast<KXFunctor_0<Subject, bool>*>(zero.get())));
  EXPECT_TRUE((dynamic_cast<KXFunctor_1<Subject, Texts, void>*>(one.get())));
  EXPECT_TRUE((dynamic_cast<KXFunctor_2<Subject, int, std::string, std::string>*>(two.get())));
  EXPECT_TRUE(
      (dynamic_cast<KXFunctor_3<Subject, std::string, KXValue, KXValue, void>*>(three.get())));
}

TEST(Functor, IsBuiltInPlaceAsWell) {
  Subject subject;
  boost::shared_ptr<KXFunctorBase> const functor(
      new detail::KXFunctor_0<Subject, Texts>(&subject, &Subject::texts));

  EXPECT_EQ(callWith(functor), KXValue(Texts{"a", "b"}));
}

TEST(Functor, TakesParametersByValueAndConstMembersAndMoreThanThree) {
  Subject subject;

  EXPECT_EQ(callWith(createFunctor(&subject, &Subject::byValue), "n", 4), KXValue("n4"));
  EXPECT_EQ(callWith(createFunctor(&subject, &Subject::getConstant)), KXValue(9));
  EXPECT_EQ(callWith(createFunctor(&subject, &Subject::addConstant), 1), KXValue(10));
  EXPECT_EQ(callWith(createFunctor(&subject, &Subject::takeFour), 1, 2, 3, 4), KXValue(1234));
  EXPECT_EQ(callWith(createFunctor(&subject, &Subject::takeTwo), 4, "t"), KXValue("t4"));
}

TEST(Functor, DispatchesVirtually) {
  Derived derived;
  Subject& base = derived;

  EXPECT_EQ(callWith(createFunctor(&base, &Subject::who)), KXValue("derived"));
}

TEST(Functor, AdjustsToTheBaseThatHasTheMember) {
  Derived derived;

  EXPECT_EQ(callWith(createFunctor(&derived, &Other::id)), KXValue(2));
  EXPECT_EQ(callWith(createFunctor(&derived, &Derived::id)), KXValue(2));
}

TEST(Functor, StopsAtTheFirstArgumentThatCannotBeConverted) {
  struct Case {
    char const* name;
    KXValue params;
    char const* text;
  };
  KXValue const wrong = KXValue(1.5);
  Case const cases[] = {
      {"all wrong", KXValue::arrayOf(wrong, wrong, wrong),
       "Parameter type is float instead of int"},
      {"second and third", KXValue::arrayOf(KXValue(1), wrong, wrong),
       "Parameter type is float instead of bool"},
      {"third", KXValue::arrayOf(KXValue(1), KXValue(true), wrong),
       "Parameter type is float instead of string"},
  };
  for (Case const& each : cases) {
    SCOPED_TRACE(each.name);
    Subject subject;
    KXValue result("untouched");
    try {
      createFunctor(&subject, &Subject::takeIntBoolText)->call(each.params, result);
      FAIL() << "was not refused";
    } catch (KXError const& error) {
      EXPECT_STREQ(error.what(), each.text);
    }
    EXPECT_EQ(subject.entered, "");
    EXPECT_EQ(result, KXValue("untouched"));
  }
}

TEST(Functor, AStringForAnIntIsRefusedWithBothTypes) {
  Subject subject;
  try {
    callWith(createFunctor(&subject, &Subject::takeInt), "100");
    FAIL() << "was not refused";
  } catch (KXError const& error) {
    EXPECT_EQ(error.getDescription(), "Parameter type is string instead of int");
    EXPECT_EQ(error.getLine(), 45);
  }
  EXPECT_EQ(subject.entered, "");
}

TEST(Functor, TooFewArgumentsAreAnErrorBeforeTheMemberRuns) {
  Subject subject;
  KXValue result;

  EXPECT_THROW(createFunctor(&subject, &Subject::takeInt)->call(KXValue::arrayOf(), result),
               KXError);
  EXPECT_THROW(createFunctor(&subject, &Subject::takeThree)
                   ->call(KXValue::arrayOf(KXValue("key"), KXValue(1)), result),
               KXError);
  EXPECT_EQ(subject.entered, "");
}

TEST(Functor, PassesTheMembersErrorUnchanged) {
  Subject subject;
  KXValue result("untouched");
  try {
    createFunctor(&subject, &Subject::fail)->call(KXValue::arrayOf(), result);
    FAIL() << "did not throw";
  } catch (KXError const& error) {
    EXPECT_EQ(error.getModuleName(), "Module");
    EXPECT_EQ(error.getMethodName(), "fail");
    EXPECT_EQ(error.getDescription(), "as told");
    EXPECT_EQ(error.getFileName(), "file");
    EXPECT_EQ(error.getLine(), 12);
  }
  EXPECT_THROW(createFunctor(&subject, &Subject::failOtherwise)->call(KXValue::arrayOf(), result),
               std::runtime_error);
  EXPECT_EQ(result, KXValue("untouched"));
}

// A stream with three bytes in its buffer and none in its file.
class BufferedFile : public ::testing::Test {
 protected:
  BufferedFile()
      : mPath(std::filesystem::temp_directory_path() /
              ("functor_test." + std::to_string(::getpid()))),
        mFile(std::fopen(mPath.c_str(), "w")) {
    write();
  }
  ~BufferedFile() override {
    std::fclose(mFile);
    std::filesystem::remove(mPath);
  }

  void write() { std::fputs("abc", mFile); }
  std::uintmax_t writtenBytes() const { return std::filesystem::file_size(mPath); }

  std::filesystem::path const mPath;
  std::FILE* const mFile;
};

class WritingSubject {
 public:
  explicit WritingSubject(std::FILE* file) : mFile(file) {}
  KXValue writeAndGet() {
    std::fputs("def", mFile);
    return KXValue(1);
  }

 private:
  std::FILE* const mFile;
};

TEST_F(BufferedFile, IsFlushedByAFunctorThatReturnsAValue) {
  Subject subject;
  ASSERT_EQ(writtenBytes(), 0U);

  callWith(createFunctor(&subject, &Subject::value));

  EXPECT_EQ(writtenBytes(), 3U);
}

TEST_F(BufferedFile, IsFlushedAfterTheMemberHasReturned) {
  WritingSubject subject(mFile);

  callWith(createFunctor(&subject, &WritingSubject::writeAndGet));

  EXPECT_EQ(writtenBytes(), 6U);
}

TEST_F(BufferedFile, IsNotFlushedByOtherFunctors) {
  Subject subject;

  callWith(createFunctor(&subject, &Subject::nothing));
  callWith(createFunctor(&subject, &Subject::yes));
  callWith(createFunctor(&subject, &Subject::texts));
  callWith(createFunctor(&subject, &Subject::text));
  callWith(createFunctor(&subject, &Subject::takeThree), "key", 1, 2);

  EXPECT_EQ(writtenBytes(), 0U);
}

TEST(StressFunctor, CallsOverlapWithoutLosingAnArgument) {
  Subject subject;
  auto const functor = createFunctor(&subject, &Subject::byValue);
  std::vector<std::thread> threads;
  std::vector<int> failures(4);

  for (std::size_t t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 5000; ++i) {
        std::string const text = std::to_string(t) + "/";
        if (callWith(functor, text, i) != KXValue(text + std::to_string(i))) ++failures[t];
      }
    });
  }
  for (std::thread& thread : threads) thread.join();

  EXPECT_EQ(failures, std::vector<int>(4));
}

}  // namespace
}  // namespace KX
