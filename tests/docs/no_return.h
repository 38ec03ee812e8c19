// Fixture of the return-contract check: one function of each kind whose comment says nothing
// of its result, between functions that do.
/// Counts.
/// \return the count.
KIV_DATABASE_API int kiv_fixture_count(kiv_sqlite_handle handle);
/// Binds, and its group's comment above says what binds return: not enough.
KIV_DATABASE_API int kiv_fixture_bind(kiv_sqlite_handle handle, int index,
                                      int value);
/// Starts; a void function with a \return would be a Doxygen error, and none at all is silence.
KIV_DATABASE_API void kiv_fixture_start(std::function<void()> job);
/// Stops.
/// \par Returns
/// Nothing.
KIV_DATABASE_API void kiv_fixture_stop();

/// A comment that a blank line separates from its function does not count.
/// \return something.

KIV_DATABASE_API bool kiv_fixture_detached(kiv_sqlite_handle handle);
