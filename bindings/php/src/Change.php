<?php

declare(strict_types=1);

namespace Korlo\Settings;

/**
 * Groups that have changed, and what they hold.
 */
final class Change
{
    /**
     * @param list<string> $groups the names of the changed groups; one that is not in $settings was erased
     * @param array<array<string>> $settings the changed groups, whole, as group => key => value
     */
    public function __construct(public readonly array $groups, public readonly array $settings)
    {
    }

    /**
     * This change and a later one as one.
     */
    public function with(Change $later): Change
    {
        return new Change(
            array_values(array_unique([...$this->groups, ...$later->groups], SORT_STRING)),
            $later->settings + array_diff_key($this->settings, array_flip($later->groups))
        );
    }
}
