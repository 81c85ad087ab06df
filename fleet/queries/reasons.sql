-- What do each program's hangs wait for?
--   from      first day
--   to        last day
-- Hashes in place of texts: they are grouped and counted faster.
SELECT of_program AS program, reason, incidents, devices, hangs
FROM
(
    SELECT
        any(program) AS of_program, any(reason_kind) AS reason, count() AS incidents,
        uniqExact(cityHash64(device)) AS devices, uniqExact(cityHash64(signature_id)) AS hangs
    FROM fleet.incidents FINAL
    WHERE day BETWEEN {from:Date} AND {to:Date}
    GROUP BY cityHash64(program, reason_kind)
)
ORDER BY program, incidents DESC, reason
