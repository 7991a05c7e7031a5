set(seconds 1200)  # with QVDBASE_TEST_ALL
