# Sourced by the scripts that run the suite for the device.

# test_summary LABEL LOG: from ctest's LastTest.log, one line for each
# skipped test with its reason (gtest prints it after "Skipped") and each
# failed test, then the counts.
test_summary() {
  awk -v label="$1" '
    /^[0-9]+\/[0-9]+ Testing: / { name = $3; total++ }
    /: Skipped$/ { getline why; if (!(name in skip)) skipped++; skip[name]
                   print label ": skipped " name ": " why | "sort" }
    /^Test Failed/ { failed++; print label ": FAILED " name | "sort" }
    END { close("sort")
          printf "%s: %d tests, %d run, %d passed, %d skipped, %d failed\n",
                 label, total, total - skipped, total - skipped - failed,
                 skipped, failed }' "$2"
}
