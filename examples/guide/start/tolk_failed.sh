tolk call pipe:4001 great you
