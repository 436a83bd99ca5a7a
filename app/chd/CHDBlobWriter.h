// Counts incidents and follows statuses, and posts the diagnostics blob.
// (Skeleton: the blob writer is filled in by its own change.)
#pragma once

#include <string>

#include "ConfigurationManagementListener.h"
#include "status/StatusManager.h"

class CHDBlobWriter : public ConfigurationManagementListener, public IStatusUpdateListener {
 public:
  CHDBlobWriter();
  ~CHDBlobWriter() override;
  CHDBlobWriter(const CHDBlobWriter&) = delete;
  CHDBlobWriter& operator=(const CHDBlobWriter&) = delete;

  void start();
  void stop();
  bool genChdDataBlob() override;
};
