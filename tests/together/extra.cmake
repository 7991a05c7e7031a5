set(seconds 900)  # with QVDBASE_TEST_ALL
