-- Which hangs began in a build: seen in it, and in no build that was active before it?
--   build     fingerprint of the build
--   top       number of hangs (20)
-- Builds that no device was counted active with are left out.
SELECT
    signature_id, any(of_program) AS program,
    sumIf(count_in_build, fingerprint = {build:String}) AS incidents,
    minIf(first_day, fingerprint = {build:String}) AS first_seen,
    maxIf(last_day, fingerprint = {build:String}) AS last_seen,
    any(text) AS signature
FROM
(
    SELECT
        toString(signature_id) AS signature_id, toString(fingerprint) AS fingerprint,
        any(program) AS of_program, any(signature) AS text, min(day) AS first_day,
        max(day) AS last_day, uniqExactMerge(incidents) AS count_in_build
    FROM fleet.incidents_by_day
    GROUP BY signature_id, fingerprint
)
ANY INNER JOIN
(
    SELECT fingerprint, min(day) AS first_active FROM fleet.active_devices GROUP BY fingerprint
) USING fingerprint
GROUP BY signature_id
HAVING incidents > 0 AND countIf(first_active < (
    SELECT min(day) FROM fleet.active_devices WHERE fingerprint = {build:String})) = 0
ORDER BY incidents DESC, signature_id
LIMIT {top:UInt32}
