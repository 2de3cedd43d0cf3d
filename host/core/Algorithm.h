#pragma once
// Base of every algorithm: configured through Properties, computed on the caller's thread,
// reporting by status code, giving its results once through takeOutput().
#include <initializer_list>
#include <string>
#include <string_view>

#include "Configurable.h"
#include "Data.h"
#include "Signal.h"

namespace Merivane {

class Progress;

class Algorithm : public Configurable {
 public:
  enum Status : int {
    statusUnknown = -1,
    statusSuccess = 0,
    statusError = 1,
    statusInvalidInput = 2,
    statusIncompleteInput = 3,
    statusCanceled = 1000,
  };

  struct FactoryInfo {
    FactoryInfo() = default;
    FactoryInfo(std::string id, std::string displayName, DataList input)
        : id(std::move(id)), displayName(std::move(displayName)), input(std::move(input)) {}
    std::string id;
    std::string displayName;
    DataList input;
  };

  Algorithm() = default;
  ~Algorithm() override;

  virtual void compute() = 0;
  virtual OwningDataList takeOutput();
  virtual void setProgress(Progress* progress) { progress_ = progress; }
  virtual int status() const { return status_; }
  virtual bool survivesDataDeletion(const Data* data) const;

  Progress* progress() const { return progress_; }
  void setFactoryInfo(FactoryInfo info) { factoryInfo_ = std::move(info); }
  const FactoryInfo& factoryInfo() const { return factoryInfo_; }
  // Applies the saved defaults of this algorithm's factory name, if any were stored.
  void loadDefaults();
  // The parameter of that key, including those of parts the algorithm configures (its graph);
  // null when there is none.
  virtual ParameterBase* findParameter(std::string_view key) const { return parameter(key); }

  // Emitted at the end of a successful compute() by algorithms whose results change in place.
  Signal<> signalOutputChanged;

 protected:
  void setStatus(int status) { status_ = status; }
  // The one check of settings at the start of compute(): every registered parameter, and those
  // of `parts`, against its declared range. At the first bad value, logs "KEY must lie in
  // LO..HI, not VALUE" at error level in `category`, sets statusInvalidInput and returns false.
  bool validateParameters(const char* category, std::initializer_list<const Configurable*> parts = {});

  Progress* progress_ = nullptr;
  FactoryInfo factoryInfo_;
  int status_ = statusUnknown;
};

// Base of file readers and writers.
class IoAlgorithm : public Algorithm {
 public:
  virtual void configureFromGlobalSettings() {}
};

}  // namespace Merivane
